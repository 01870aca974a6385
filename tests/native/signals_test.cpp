// Events from the handler of a timer's signal, with every listener that we have, while the program
// allocates, records, reads and clears.
#include <atomic>
#include <memory>
#include <vector>

#include "soak_support.hpp"
#include "zandor/instrument/testing/recorder_support.hpp"
#include "zandor/instrument/testing/timer_signals.hpp"
#include "zandor/performance/counter.hpp"
#include "zandor/performance/profiler.hpp"

namespace instrument {
namespace {

using test_support::Listening;
using test_support::TimerSignals;

constinit std::atomic<int> handled{0};

void emitFromHandler(int) {
    static constinit detail::LazyInstrument instrument{"in the handler"};
    ++handled;
    const Scope scope{instrument.get(), {{"n", 1}, {"text", "some text"}}};
}

class Signals : public Counted<test_support::RecorderTest> {
  protected:
    Signals() { handled = 0; }

    static std::uint64_t countOf(const InstrumentCounter& counter, const char* name) {
        return static_cast<std::uint64_t>(counter.getEventCount(name).count);
    }
    const Instrument work_{"work"};
};

// What a handler emits inside a delivery is not delivered, and counted.
TEST_P(Signals, ThatInterruptAllocationAndDeliveryLoseNothingUncounted) {
    InstrumentRecorder recorder({.maxBytes = 1024 * 1024, .keep = Keep::last});
    InstrumentCounter counter;
    InstrumentProfiler profiler;
    const Listening listening[] = {Listening(counter), Listening(recorder), Listening(profiler)};
    const std::uint64_t suppressedBefore = listeners.suppressedEvents();
    std::uint64_t own = 0;
    {
        const TimerSignals timer(emitFromHandler);
        std::vector<std::unique_ptr<char[]>> blocks(64);
        for (std::size_t i = 0; handled < count(); ++i) {
            blocks[i % blocks.size()] = std::make_unique<char[]>(1 + i * 37 % 5000);
            if (i % 8 == 0) {
                const Scope scope{work_, {{"i", i}}};
                ++own;
            }
        }
    }
    const std::uint64_t suppressed = listeners.suppressedEvents() - suppressedBefore;
    EXPECT_EQ(countOf(counter, "work") + countOf(counter, "in the handler") + suppressed,
              own + static_cast<std::uint64_t>(handled));
    EXPECT_EQ(counter.lostEvents(), 0u);
}

TEST_P(Signals, ThatInterruptReadingAndClearingDoNotWaitForThem) {
    InstrumentRecorder recorder({.maxBytes = 1024 * 1024, .keep = Keep::longest});
    InstrumentCounter counter;
    InstrumentProfiler profiler;
    const Listening listening[] = {Listening(recorder), Listening(counter), Listening(profiler)};
    const TimerSignals timer(emitFromHandler);
    while (handled < count()) {
        const Scope scope{work_};
        recorder.getAllEventStats();
        counter.getAllEventCounts();
        profiler.getSummary();
        recorder.clearAllEventData();
        counter.resetAllEventCounts();
        profiler.clear();
    }
    EXPECT_GE(handled, count());
}

SHORT_AND_SOAK(Signals, 3000, 1'200'000);

}  // namespace
}  // namespace instrument
