// What the counter and the profiler cost, beside the floors that they stand on, and both with a
// recorder beside them: two calls that count where no clock is needed, else two readings of it.
#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "zandor/instrument/clock.hpp"
#include "zandor/instrument/controls.hpp"
#include "zandor/instrument/instrument.hpp"
#include "zandor/instrument/recorder.hpp"
#include "zandor/performance/counter.hpp"
#include "zandor/performance/profiler.hpp"

namespace {

using instrument::InstrumentCounter;
using instrument::InstrumentListener;
using instrument::InstrumentProfiler;
using instrument::InstrumentRecorder;

const instrument::Instrument solve{"bench.listeners"};

/// Listens as long as it lives, with all instruments on.
class Listening {
  public:
    explicit Listening(std::vector<InstrumentListener*> heard) : listeners_(std::move(heard)) {
        for (InstrumentListener* listener : listeners_)
            instrument::listeners.add(*listener);
        instrument::controls.enableAll(true);
    }
    ~Listening() {
        instrument::controls.enableAll(false);
        for (InstrumentListener* listener : listeners_)
            instrument::listeners.remove(*listener);
    }
    Listening(const Listening&) = delete;
    Listening& operator=(const Listening&) = delete;

  private:
    std::vector<InstrumentListener*> listeners_;
};

/// What delivering a pair costs, with nothing done.
class Idle : public InstrumentListener {
  public:
    using Opaque = instrument::Opaque;
    using EventContext = instrument::EventContext;
    using EventId = instrument::EventId;
    ~Idle() override { instrument::listeners.remove(*this); }
    void onInstant(const Opaque*, const EventContext&, EventId) override {}
    void onStart(const Opaque*, const EventContext&, EventId) override {}
    void onStop(const Opaque*, const EventContext&, EventId) override {}
    void onInstantAt(const Opaque*, const EventContext&, EventId, std::int64_t) override {}
    void onStartAt(const Opaque*, const EventContext&, EventId, std::int64_t) override {}
    void onStopAt(const Opaque*, const EventContext&, EventId, std::int64_t) override {}
};

void pairs(benchmark::State& state, std::vector<InstrumentListener*> heard) {
    const Listening listening(std::move(heard));
    for (auto _ : state)
        const instrument::Scope scope{solve};
}

std::uint64_t counts[2];

void floorTwoCalls(benchmark::State& state) {
    void (*volatile begin)() = [] { ++counts[0]; };
    void (*volatile end)() = [] { ++counts[1]; };
    for (auto _ : state) {
        begin();
        end();
        benchmark::ClobberMemory();
    }
}
BENCHMARK(floorTwoCalls);

void deliveredPair(benchmark::State& state) {
    Idle idle;
    pairs(state, {&idle});
}
BENCHMARK(deliveredPair);

void countedPair(benchmark::State& state) {
    InstrumentCounter counter;
    pairs(state, {&counter});
    if (counter.getEventCount("bench.listeners").count < state.iterations())
        state.SkipWithError("events were not counted");
}
BENCHMARK(countedPair);

void deliveredPairWithContext(benchmark::State& state) {
    Idle idle;
    const Listening listening({&idle});
    for (auto _ : state)
        const instrument::Scope scope{solve, {{"n", 3}, {"method", "cg"}}};
}
BENCHMARK(deliveredPairWithContext);

void countedPairWithContext(benchmark::State& state) {
    InstrumentCounter counter;
    const Listening listening({&counter});
    for (auto _ : state)
        const instrument::Scope scope{solve, {{"n", 3}, {"method", "cg"}}};
}
BENCHMARK(countedPairWithContext);

void floorTwoClockReadings(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(instrument::clock::ticks());
        benchmark::DoNotOptimize(instrument::clock::ticks());
    }
}
BENCHMARK(floorTwoClockReadings);

void profiledPair(benchmark::State& state) {
    InstrumentProfiler profiler;
    pairs(state, {&profiler});
    if (profiler.lostEvents() != 0)
        state.SkipWithError("events were lost");
}
BENCHMARK(profiledPair);

/// Calls of a thousand names in stacks fifty deep, each name again further in.
void profiledPairInDeepStacks(benchmark::State& state) {
    constexpr std::size_t names = 1000;
    constexpr std::size_t depth = 50;
    std::vector<instrument::Instrument> instruments;
    for (std::size_t i = 0; i < names; ++i)
        instruments.emplace_back("bench.listeners." + std::to_string(i));
    InstrumentProfiler profiler;
    const Listening listening({&profiler});
    std::vector<instrument::OpenEvent> open(depth);
    std::size_t first = 0;
    for (auto _ : state) {
        for (std::size_t i = 0; i < depth; ++i)
            open[i] = instruments[(first + i % 25) % names].start();
        for (std::size_t i = depth; i-- > 0;)
            instruments[(first + i % 25) % names].stop(open[i]);
        first = (first + 25) % names;
    }
    state.counters["perPair"] =
        benchmark::Counter(static_cast<double>(state.iterations() * depth),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(profiledPairInDeepStacks);

/// The recorder is in memory that it uses again.
void recordedCountedProfiledPair(benchmark::State& state) {
    InstrumentRecorder recorder(
        {.maxBytes = std::size_t{16} << 20, .keep = instrument::Keep::last});
    InstrumentCounter counter;
    InstrumentProfiler profiler;
    const Listening listening({&recorder, &counter, &profiler});
    while (recorder.drops().oldest == 0)
        for (int i = 0; i < 1000; ++i)
            const instrument::Scope scope{solve};
    for (auto _ : state)
        const instrument::Scope scope{solve};
}
BENCHMARK(recordedCountedProfiledPair);

}  // namespace
