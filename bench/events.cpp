// What native events cost, beside the floors that they stand on: two relaxed loads while nobody
// listens, two readings of the clock while a recorder does.
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>

#include "zandor/instrument/clock.hpp"
#include "zandor/instrument/controls.hpp"
#include "zandor/instrument/instrument.hpp"
#include "zandor/instrument/recorder.hpp"

namespace {

const instrument::Instrument solve{"bench.solve"};

void floorTwoRelaxedLoads(benchmark::State& state) {
    static std::atomic<bool> flags[2];
    for (auto _ : state) {
        if (flags[0].load(std::memory_order_relaxed) && flags[1].load(std::memory_order_relaxed))
            state.SkipWithError("the flags are down");
        benchmark::ClobberMemory();
    }
}
BENCHMARK(floorTwoRelaxedLoads);

void inactiveScope(benchmark::State& state) {
    for (auto _ : state) {
        const instrument::Scope scope{solve};
        benchmark::ClobberMemory();
    }
}
BENCHMARK(inactiveScope);

void inactiveScopeWithContext(benchmark::State& state) {
    int n = 0;
    for (auto _ : state) {
        const instrument::Scope scope{solve, {{"n", ++n}, {"method", "cg"}}};
        benchmark::ClobberMemory();
    }
}
BENCHMARK(inactiveScopeWithContext);

void floorTwoClockReadings(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(instrument::clock::ticks());
        benchmark::DoNotOptimize(instrument::clock::ticks());
    }
}
BENCHMARK(floorTwoClockReadings);

/// Records pairs that `emit` makes; the recorder is emptied outside the measured time before it
/// grows large.
template <typename Emit>
void recordPairs(benchmark::State& state, Emit emit) {
    constexpr int pairsPerClear = 1 << 20;
    instrument::InstrumentRecorder recorder;
    instrument::listeners.add(recorder);
    instrument::controls.enable("bench.solve");
    int pairs = 0;
    for (auto _ : state) {
        emit();
        if (++pairs % pairsPerClear == 0) {
            state.PauseTiming();
            recorder.clearAllEventData();
            state.ResumeTiming();
        }
    }
    instrument::controls.disable("bench.solve");
    instrument::listeners.remove(recorder);
    if (recorder.drops().total() != 0)
        state.SkipWithError("events were dropped");
}

void recordedPair(benchmark::State& state) {
    recordPairs(state, [] { const instrument::Scope scope{solve}; });
}
BENCHMARK(recordedPair);

void recordedPairWithNumber(benchmark::State& state) {
    recordPairs(state, [n = 0]() mutable { const instrument::Scope scope{solve, {{"n", ++n}}}; });
}
BENCHMARK(recordedPairWithNumber);

void recordedPairWithTwoTexts(benchmark::State& state) {
    recordPairs(state, [] {
        const instrument::Scope scope{solve, {{"method", "cg"}, {"preconditioner", "ilu"}}};
    });
}
BENCHMARK(recordedPairWithTwoTexts);

/// Per event, over a recording of a million.
void statisticsByName(benchmark::State& state) {
    constexpr int events = 1'000'000;
    instrument::InstrumentRecorder recorder;
    instrument::listeners.add(recorder);
    instrument::controls.enable("bench.solve");
    for (int i = 0; i < events; ++i)
        const instrument::Scope scope{solve};
    instrument::controls.disable("bench.solve");
    instrument::listeners.remove(recorder);
    for (auto _ : state)
        benchmark::DoNotOptimize(recorder.getAllEventStats());
    state.SetItemsProcessed(state.iterations() * events);
}
BENCHMARK(statisticsByName)->Unit(benchmark::kMillisecond);

}  // namespace
