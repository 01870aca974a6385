// What recording costs beyond a plain pair: in memory that is used again, through context sets, and
// reading it back by context.
#include <benchmark/benchmark.h>

#include <cstddef>

#include "zandor/instrument/clock.hpp"
#include "zandor/instrument/context.hpp"
#include "zandor/instrument/controls.hpp"
#include "zandor/instrument/instrument.hpp"
#include "zandor/instrument/recorder.hpp"

namespace {

const instrument::Instrument solve{"bench.recorder"};

/// Runs `emit` with a recorder that keeps the last few megabytes, whose chunks are used again from
/// then on.
template <typename Emit>
void recordInUsedMemory(benchmark::State& state, Emit emit) {
    instrument::InstrumentRecorder recorder(
        {.maxBytes = std::size_t{16} << 20, .keep = instrument::Keep::last});
    instrument::listeners.add(recorder);
    instrument::controls.enable("bench.recorder");
    while (recorder.drops().oldest == 0)
        for (int i = 0; i < 1000; ++i)
            emit();
    for (auto _ : state)
        emit();
    instrument::controls.disable("bench.recorder");
    instrument::listeners.remove(recorder);
    if (recorder.drops().total() != recorder.drops().oldest)
        state.SkipWithError("new events were refused");
}

void floorTwoClockReads(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(instrument::clock::ticks());
        benchmark::DoNotOptimize(instrument::clock::ticks());
    }
}
BENCHMARK(floorTwoClockReads);

void pairInUsedMemory(benchmark::State& state) {
    recordInUsedMemory(state, [] { const instrument::Scope scope{solve}; });
}
BENCHMARK(pairInUsedMemory);

void pairThroughContextSets(benchmark::State& state) {
    recordInUsedMemory(state, [] {
        using instrument::ContextSet;
        const auto id = instrument::listeners.onEventStart(
            solve.handle(), ContextSet{{"method", "cg"}, {"n", "3"}});
        instrument::listeners.onEventStop(solve.handle(), ContextSet{{"method", "cg"}, {"n", "3"}},
                                          id);
    });
}
BENCHMARK(pairThroughContextSets);

/// Per event, over a million with a hundred contexts.
void statisticsByContext(benchmark::State& state) {
    constexpr int events = 1'000'000;
    instrument::InstrumentRecorder recorder;
    instrument::listeners.add(recorder);
    instrument::controls.enable("bench.recorder");
    for (int i = 0; i < events; ++i)
        const instrument::Scope scope{solve, {{"n", i % 100}, {"method", "cg"}}};
    instrument::controls.disable("bench.recorder");
    instrument::listeners.remove(recorder);
    for (auto _ : state)
        benchmark::DoNotOptimize(recorder.getAllEventStatsByContext());
    state.SetItemsProcessed(state.iterations() * events);
}
BENCHMARK(statisticsByContext)->Unit(benchmark::kMillisecond);

}  // namespace
