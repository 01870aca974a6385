// A start and a stop: while nobody listens, and recorded.
#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "measuring.hpp"
#include "prototype.hpp"
#include "zandor/instrument/context.hpp"
#include "zandor/instrument/literal_context.hpp"

namespace {

using bench::Listening;
using bench::nestedPairs;
using bench::PrototypeScope;
using bench::tick;
using bench::TwoTicks;
using instrument::InstrumentRecorder;
using instrument::Scope;

const instrument::Instrument solve{"bench.solve"};

/// The first flag is up, as when somebody listens to something else: both are looked at.
void floorTwoLoads(benchmark::State& state) {
    static std::atomic<bool> flags[2];
    flags[0] = true;
    for (auto _ : state) {
        if (flags[0].load(std::memory_order_relaxed) && flags[1].load(std::memory_order_relaxed))
            state.SkipWithError("the second flag is down");
        benchmark::ClobberMemory();
    }
}
BENCHMARK(floorTwoLoads);

void inactiveScope(benchmark::State& state) {
    for (auto _ : state) {
        const Scope scope{solve};
        benchmark::ClobberMemory();
    }
}
BENCHMARK(inactiveScope);

void inactiveScopeBesideOthers(benchmark::State& state) {
    InstrumentRecorder recorder;
    instrument::listeners.add(recorder);
    for (auto _ : state) {
        const Scope scope{solve};
        benchmark::ClobberMemory();
    }
    if (recorder.bytesInUse() != 0)
        state.SkipWithError("the instrument is on");
}
BENCHMARK(inactiveScopeBesideOthers);

void inactiveScopeWithContext(benchmark::State& state) {
    int n = 0;
    for (auto _ : state) {
        const Scope scope{solve, {{"n", ++n}, {"method", "cg"}}};
        benchmark::ClobberMemory();
    }
}
BENCHMARK(inactiveScopeWithContext);

void floorTwoTicks(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(tick());
        benchmark::DoNotOptimize(tick());
    }
}
BENCHMARK(floorTwoTicks);

void floorTwoTicksNested(benchmark::State& state) {
    nestedPairs<TwoTicks>(state);
}
BENCHMARK(floorTwoTicksNested);

/// Keeps the last few megabytes of what `emit` makes, in memory that it has used before.
template <class Emit>
void recordInUsedMemory(benchmark::State& state, Emit emit) {
    InstrumentRecorder recorder(bench::littleMemory());
    const Listening listening({&recorder});
    bench::fill(recorder, emit);
    for (auto _ : state)
        emit();
    if (recorder.drops().total() != recorder.drops().oldest)
        state.SkipWithError("new events were refused");
}

void recordedPair(benchmark::State& state) {
    recordInUsedMemory(state, [] { const Scope scope{solve}; });
}
BENCHMARK(recordedPair)->MeasureProcessCPUTime();

void recordedPairNested(benchmark::State& state) {
    InstrumentRecorder recorder(bench::littleMemory());
    const Listening listening({&recorder});
    bench::fill(recorder, [] { bench::descend<Scope>(0, bench::depth); });
    nestedPairs<Scope>(state);
    if (recorder.drops().total() != recorder.drops().oldest)
        state.SkipWithError("new events were refused");
}
BENCHMARK(recordedPairNested)->MeasureProcessCPUTime();

void prototypePair(benchmark::State& state) {
    const bench::PrototypeRecording recording(std::size_t{1} << 20);
    for (auto _ : state)
        const PrototypeScope scope{solve};
}
BENCHMARK(prototypePair);

void recordedPairWithNumber(benchmark::State& state) {
    recordInUsedMemory(state, [n = 0]() mutable { const Scope scope{solve, {{"n", ++n}}}; });
}
BENCHMARK(recordedPairWithNumber)->MeasureProcessCPUTime();

/// Values that the program made itself, each of which comes again.
void recordedPairWithTwoTexts(benchmark::State& state) {
    std::vector<std::string> methods, grids;
    for (int i = 0; i < 64; ++i) {
        methods.push_back("method-" + std::to_string(i));
        grids.push_back("grid-" + std::to_string(i % 8));
    }
    recordInUsedMemory(state, [&, i = std::size_t{0}]() mutable {
        i = (i + 1) % methods.size();
        const Scope scope{solve, {{"method", methods[i]}, {"grid", grids[i]}}};
    });
}
BENCHMARK(recordedPairWithTwoTexts)->MeasureProcessCPUTime();

constinit const instrument::LiteralContext twoLiterals{{"method", "cg"}, {"preconditioner", "ilu"}};

void recordedPairWithTwoLiterals(benchmark::State& state) {
    recordInUsedMemory(state, [] { const Scope scope{solve, twoLiterals}; });
}
BENCHMARK(recordedPairWithTwoLiterals)->MeasureProcessCPUTime();

void recordedPairByContextSets(benchmark::State& state) {
    using instrument::ContextSet;
    recordInUsedMemory(state, [] {
        const auto id = instrument::listeners.onEventStart(
            solve.handle(), ContextSet{{"method", "cg"}, {"n", "3"}});
        instrument::listeners.onEventStop(solve.handle(), ContextSet{{"method", "cg"}, {"n", "3"}},
                                          id);
    });
}
BENCHMARK(recordedPairByContextSets)->MeasureProcessCPUTime();

// Memory that is touched for the first time, 32 MiB of it in the floor.
constexpr int growingPairs = 1 << 20;

void floorGrowing(benchmark::State& state) {
    const bench::PrototypeRecording recording(std::size_t{2} * growingPairs);
    for (auto _ : state)
        const PrototypeScope scope{solve};
}
BENCHMARK(floorGrowing)->Iterations(growingPairs)->MeasureProcessCPUTime();

void recordedPairGrowing(benchmark::State& state) {
    InstrumentRecorder recorder;
    const Listening listening({&recorder});
    for (auto _ : state)
        const Scope scope{solve};
    state.counters["bytes"] =
        static_cast<double>(recorder.bytesInUse()) / static_cast<double>(state.iterations());
    if (recorder.drops().total() != 0)
        state.SkipWithError("events were dropped");
}
BENCHMARK(recordedPairGrowing)->Iterations(growingPairs)->MeasureProcessCPUTime();

/// The same pairs with two entries of context, for what their memory takes.
void recordedTextsGrowing(benchmark::State& state) {
    InstrumentRecorder recorder;
    const Listening listening({&recorder});
    for (auto _ : state)
        const Scope scope{solve, twoLiterals};
    state.counters["bytes"] =
        static_cast<double>(recorder.bytesInUse()) / static_cast<double>(state.iterations());
}
BENCHMARK(recordedTextsGrowing)->Iterations(growingPairs)->MeasureProcessCPUTime();

/// What the threads of a measurement are heard by.
struct Heard {
    InstrumentRecorder recorder{bench::littleMemory()};
    Listening listening{{&recorder}};
};
std::unique_ptr<Heard> heard;

/// Each thread with pairs of its own, heard by one recorder, whose memory they have all used
/// before.
void recordedPairOfThreads(benchmark::State& state) {
    for (int i = 0; i < bench::littlePairs; ++i)
        const Scope scope{solve};
    for (auto _ : state)
        const Scope scope{solve};
}
BENCHMARK(recordedPairOfThreads)
    ->Setup([](const benchmark::State&) { heard = std::make_unique<Heard>(); })
    ->Teardown([](const benchmark::State&) { heard.reset(); })
    ->Threads(1)
    ->Threads(2);

}  // namespace
