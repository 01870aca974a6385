// Statistics of what was recorded, per event.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "measuring.hpp"
#include "prototype.hpp"

namespace {

using bench::Listening;
using instrument::InstrumentRecorder;
using instrument::Scope;

constexpr std::size_t manyEvents = 10'000'000;
constexpr std::size_t events = 1'000'000;

/// One pass over both edges of each event, which adds them up by name.
void floorStatistics(benchmark::State& state) {
    const bench::PrototypeBuffer buffer(2 * manyEvents);
    std::uint64_t i = 0;
    for (bench::PrototypeEdge& edge : buffer) {
        edge = {i * 10, i / 2 % 1000};
        ++i;
    }
    struct Sum {
        std::uint64_t count, ticks;
    };
    while (state.KeepRunningBatch(manyEvents)) {
        std::vector<Sum> sums(1000);
        for (const bench::PrototypeEdge* at = buffer.begin(); at != buffer.end(); at += 2) {
            Sum& sum = sums[at->name];
            ++sum.count;
            sum.ticks += at[1].tick - at[0].tick;
        }
        benchmark::DoNotOptimize(sums.data());
    }
}
BENCHMARK(floorStatistics);

void statisticsByName(benchmark::State& state) {
    InstrumentRecorder recorder;
    {
        const Listening listening({&recorder});
        for (std::size_t i = 0; i < manyEvents / bench::depth; ++i)
            bench::descend<Scope>(i * 25, bench::depth);
    }
    if (recorder.drops().total() != 0)
        state.SkipWithError("events were dropped");
    while (state.KeepRunningBatch(manyEvents))
        benchmark::DoNotOptimize(recorder.getAllEventStats());
}
BENCHMARK(statisticsByName)->MeasureProcessCPUTime();

/// Over a hundred contexts.
void statisticsByContext(benchmark::State& state) {
    const instrument::Instrument solve("bench.statistics");
    InstrumentRecorder recorder;
    {
        const Listening listening({&recorder});
        for (std::size_t i = 0; i < events; ++i)
            const Scope scope{solve, {{"n", i % 100}, {"method", "cg"}}};
    }
    while (state.KeepRunningBatch(events))
        benchmark::DoNotOptimize(recorder.getAllEventStatsByContext());
}
BENCHMARK(statisticsByContext)->MeasureProcessCPUTime();

}  // namespace
