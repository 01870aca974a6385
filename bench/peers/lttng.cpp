// A peer: pairs of static tracepoints, of which a session that keeps the last ones records two.
// with_lttng runs this with such a session.
#include <benchmark/benchmark.h>

#include "bench/peers/lttng_points.h"

namespace {

void inactivePair(benchmark::State& state) {
    for (auto _ : state) {
        tracepoint(bench, off, 1);
        benchmark::ClobberMemory();
        tracepoint(bench, off, 2);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(inactivePair);

void recordedPair(benchmark::State& state) {
    if (!tracepoint_enabled(bench, begin))
        state.SkipWithError("no session records this");
    for (auto _ : state) {
        tracepoint(bench, begin, 1);
        tracepoint(bench, end, 1);
    }
}
BENCHMARK(recordedPair);

}  // namespace
