// The counter, the profiler, and all listeners together.
#include <array>
#include <atomic>
#include <cstdint>
#include <tuple>
#include <utility>

#include "measuring.hpp"
#include "zandor/instrument/literal_context.hpp"
#include "zandor/performance/counter.hpp"
#include "zandor/performance/profiler.hpp"

namespace {

using bench::Listening;
using instrument::EventContext;
using instrument::EventId;
using instrument::InstrumentCounter;
using instrument::InstrumentProfiler;
using instrument::InstrumentRecorder;
using instrument::Opaque;
using instrument::Scope;

const instrument::Instrument solve{"bench.listeners"};

/// What counting takes at least: an edge is a call into the library, which looks whether somebody
/// listens, and one of the listener, which adds to a table of the thread's own.
struct Counts {
    virtual ~Counts() = default;
    virtual void begin(std::uint32_t name, const char* value) = 0;
    virtual void end(std::uint32_t name) = 0;
};

using Slots = std::array<std::pair<std::uint64_t, std::uint64_t>, 1024>;
thread_local Slots* slotsOfThread = nullptr;

struct CountsByName : Counts {
    void begin(std::uint32_t name, const char*) override { ++(*slotsOfThread)[name].second; }
    void end(std::uint32_t) override {}
};

/// With a text of the context, by its address.
struct CountsByContext : CountsByName {
    void begin(std::uint32_t name, const char* value) override {
        const std::uint64_t key = (reinterpret_cast<std::uintptr_t>(value) >> 3) * 31 + name;
        auto& [known, count] = (*slotsOfThread)[key % std::tuple_size_v<Slots>];
        known = key;
        ++count;
    }
};

std::atomic<Counts*> counted;

void deliverBegin(std::uint32_t name, const char* value) {
    if (Counts* const listener = counted.load(std::memory_order_relaxed))
        listener->begin(name, value);
}

void deliverEnd(std::uint32_t name) {
    if (Counts* const listener = counted.load(std::memory_order_relaxed))
        listener->end(name);
}

void countPairs(benchmark::State& state, Counts& listener) {
    Slots slots{};
    slotsOfThread = &slots;
    counted = &listener;
    void (*volatile begin)(std::uint32_t, const char*) = deliverBegin;
    void (*volatile end)(std::uint32_t) = deliverEnd;
    for (auto _ : state) {
        begin(7, "cg");
        end(7);
        benchmark::ClobberMemory();
    }
    counted = nullptr;
}

void floorCounted(benchmark::State& state) {
    CountsByName counts;
    countPairs(state, counts);
}
BENCHMARK(floorCounted);

void floorCountedByContext(benchmark::State& state) {
    CountsByContext counts;
    countPairs(state, counts);
}
BENCHMARK(floorCountedByContext);

/// What delivering a pair costs, with nothing done.
class Idle : public instrument::InstrumentListener {
  public:
    ~Idle() override { instrument::listeners.remove(*this); }
    void onInstant(const Opaque*, const EventContext&, EventId) override {}
    void onStart(const Opaque*, const EventContext&, EventId) override {}
    void onStop(const Opaque*, const EventContext&, EventId) override {}
    void onInstantAt(const Opaque*, const EventContext&, EventId, std::int64_t) override {}
    void onStartAt(const Opaque*, const EventContext&, EventId, std::int64_t) override {}
    void onStopAt(const Opaque*, const EventContext&, EventId, std::int64_t) override {}
};

void deliveredPair(benchmark::State& state) {
    Idle idle;
    const Listening listening({&idle});
    for (auto _ : state)
        const Scope scope{solve};
}
BENCHMARK(deliveredPair);

void countedPair(benchmark::State& state) {
    InstrumentCounter counter;
    const Listening listening({&counter});
    for (auto _ : state)
        const Scope scope{solve};
    if (counter.getEventCount("bench.listeners").count < state.iterations())
        state.SkipWithError("events were not counted");
}
BENCHMARK(countedPair);

void countedPairByContext(benchmark::State& state) {
    InstrumentCounter counter;
    const Listening listening({&counter});
    static constinit const instrument::LiteralContext method{{"method", "cg"}};
    for (auto _ : state)
        const Scope scope{solve, method};
    if (counter.getEventCountsByContext("bench.listeners").size() != 1)
        state.SkipWithError("contexts were not told apart");
}
BENCHMARK(countedPairByContext);

void countedPairNested(benchmark::State& state) {
    InstrumentCounter counter;
    const Listening listening({&counter});
    bench::nestedPairs<Scope>(state);
}
BENCHMARK(countedPairNested);

void profiledPair(benchmark::State& state) {
    InstrumentProfiler profiler;
    const Listening listening({&profiler});
    for (auto _ : state)
        const Scope scope{solve};
    if (profiler.lostEvents() != 0)
        state.SkipWithError("events were lost");
}
BENCHMARK(profiledPair);

void profiledPairNested(benchmark::State& state) {
    InstrumentProfiler profiler;
    const Listening listening({&profiler});
    bench::nestedPairs<Scope>(state);
    if (profiler.lostEvents() != 0)
        state.SkipWithError("events were lost");
}
BENCHMARK(profiledPairNested);

/// The recorder is in memory that it has used before.
struct Everything {
    InstrumentRecorder recorder{bench::littleMemory()};
    InstrumentCounter counter;
    InstrumentProfiler profiler;
    Listening listening{{&recorder, &counter, &profiler}};
};

void heardByAll(benchmark::State& state) {
    const Everything all;
    bench::fill(all.recorder, [] { const Scope scope{solve}; });
    for (auto _ : state)
        const Scope scope{solve};
}
BENCHMARK(heardByAll)->MeasureProcessCPUTime();

void heardByAllNested(benchmark::State& state) {
    const Everything all;
    bench::fill(all.recorder, [] { bench::descend<Scope>(0, bench::depth); });
    bench::nestedPairs<Scope>(state);
}
BENCHMARK(heardByAllNested)->MeasureProcessCPUTime();

}  // namespace
