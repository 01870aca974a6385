// A pair after the program touched 48 MB, so that nothing of it is in a near cache: the median of
// single pairs.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "measuring.hpp"
#include "prototype.hpp"
#include "zandor/performance/counter.hpp"
#include "zandor/performance/profiler.hpp"

namespace {

using bench::Listening;
using bench::tick;

constexpr std::size_t cacheLine = 64;

void touch(std::vector<char>& memory) {
    for (std::size_t i = 0; i < memory.size(); i += cacheLine)
        ++memory[i];
    benchmark::ClobberMemory();
}

double nanoseconds(std::uint64_t ticks) {
    static const double perTick = [] {
        const std::uint64_t begin = instrument::clock::ticks();
        const std::int64_t time = instrument::clock::now();
        while (instrument::clock::now() < time + 10'000'000)
            continue;
        const std::uint64_t end = instrument::clock::ticks();
        return static_cast<double>(instrument::clock::toNanoseconds(end) -
                                   instrument::clock::toNanoseconds(begin)) /
               static_cast<double>(end - begin);
    }();
    return static_cast<double>(ticks) * perTick;
}

/// Each pair is one of another name, all of which were there before.
template <class Guard>
void coldPairs(benchmark::State& state) {
    constexpr int pairs = 51;
    std::vector<char> memory(std::size_t{48} << 20);
    const auto& names = bench::thousandNames();
    for (const instrument::Instrument& name : names)
        const Guard guard{name};
    std::vector<std::uint64_t> took;
    for (auto _ : state) {
        took.clear();
        for (std::size_t i = 0; i < pairs; ++i) {
            touch(memory);
            const std::uint64_t begin = tick();
            { const Guard guard{names[i * 7 % names.size()]}; }
            took.push_back(tick() - begin);
        }
        std::nth_element(took.begin(), took.begin() + pairs / 2, took.end());
        state.SetIterationTime(nanoseconds(took[pairs / 2]) * 1e-9);
    }
}

void coldPrototypePair(benchmark::State& state) {
    const bench::PrototypeRecording recording(std::size_t{1} << 16);
    coldPairs<bench::PrototypeScope>(state);
}
BENCHMARK(coldPrototypePair)->Iterations(1)->UseManualTime();

void coldInactivePair(benchmark::State& state) {
    coldPairs<instrument::Scope>(state);
}
BENCHMARK(coldInactivePair)->Iterations(1)->UseManualTime();

template <class Listener>
void coldHeardPair(benchmark::State& state) {
    Listener listener;
    const Listening listening({&listener});
    coldPairs<instrument::Scope>(state);
}
BENCHMARK(coldHeardPair<instrument::InstrumentRecorder>)
    ->Name("coldRecordedPair")
    ->Iterations(1)
    ->UseManualTime();
BENCHMARK(coldHeardPair<instrument::InstrumentCounter>)
    ->Name("coldCountedPair")
    ->Iterations(1)
    ->UseManualTime();
BENCHMARK(coldHeardPair<instrument::InstrumentProfiler>)
    ->Name("coldProfiledPair")
    ->Iterations(1)
    ->UseManualTime();

}  // namespace
