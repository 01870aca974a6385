// What the native measurements share: the clock as near to the processor as it gets, who listens,
// and calls of many names that nest.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "zandor/instrument/clock.hpp"
#include "zandor/instrument/controls.hpp"
#include "zandor/instrument/instrument.hpp"
#include "zandor/instrument/listener.hpp"
#include "zandor/instrument/recorder.hpp"

#if defined(__x86_64__)
#include <x86intrin.h>
#endif

namespace bench {

inline std::uint64_t tick() {
#if defined(__x86_64__)
    return __rdtsc();
#else
    return instrument::clock::ticks();
#endif
}

/// Hears everything as long as it lives, with all instruments on.
class Listening {
  public:
    explicit Listening(std::vector<instrument::InstrumentListener*> heard)
        : listeners_(std::move(heard)) {
        for (instrument::InstrumentListener* listener : listeners_)
            instrument::listeners.add(*listener);
        instrument::controls.enableAll(true);
    }
    ~Listening() {
        instrument::controls.enableAll(false);
        for (instrument::InstrumentListener* listener : listeners_)
            instrument::listeners.remove(*listener);
    }
    Listening(const Listening&) = delete;
    Listening& operator=(const Listening&) = delete;

  private:
    std::vector<instrument::InstrumentListener*> listeners_;
};

/// Keeps the last few megabytes, in chunks that are used again after a while.
inline instrument::RecorderLimits littleMemory() {
    return {.maxBytes = std::size_t{16} << 20, .keep = instrument::Keep::last};
}

/// More than it holds.
constexpr int littlePairs = 1 << 20;

/// Emits until the recorder uses its memory again.
template <class Emit>
void fill(const instrument::InstrumentRecorder& recorder, Emit emit) {
    while (recorder.drops().oldest == 0)
        for (int i = 0; i < 1000; ++i)
            emit();
}

/// The floor of a recorded pair.
class TwoTicks {
  public:
    explicit TwoTicks(const instrument::Instrument&) { benchmark::DoNotOptimize(tick()); }
    ~TwoTicks() { benchmark::DoNotOptimize(tick()); }
    TwoTicks(const TwoTicks&) = delete;
    TwoTicks& operator=(const TwoTicks&) = delete;
};

constexpr std::size_t depth = 50;

inline const std::vector<instrument::Instrument>& thousandNames() {
    static const std::vector<instrument::Instrument> all = [] {
        std::vector<instrument::Instrument> made;
        for (int i = 0; i < 1000; ++i)
            made.emplace_back("bench.name." + std::to_string(i));
        return made;
    }();
    return all;
}

/// Calls that nest, each name a second time further in.
template <class Guard>
[[gnu::noinline]] void descend(std::size_t first, std::size_t levels) {
    if (levels == 0)
        return;
    const auto& names = thousandNames();
    const Guard guard{names[(first + levels % (depth / 2)) % names.size()]};
    descend<Guard>(first, levels - 1);
    benchmark::ClobberMemory();
}

/// A pair an iteration, of all the names in stacks fifty deep.
template <class Guard>
void nestedPairs(benchmark::State& state) {
    std::size_t first = 0;
    while (state.KeepRunningBatch(depth)) {
        descend<Guard>(first, depth);
        first = (first + depth / 2) % thousandNames().size();
    }
}

}  // namespace bench
