// Events from signal handlers, wherever the signal comes.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "zandor/instrument/instrument.hpp"
#include "zandor/instrument/testing/event_log.hpp"
#include "zandor/instrument/testing/timer_signals.hpp"

namespace instrument {
namespace {

using test_support::ControlsTest;
using test_support::CountingListener;
using test_support::TimerSignals;

constinit std::atomic<int> signals{0};

void emitFromHandler(int) {
    static constinit detail::LazyInstrument fromHandler{"from the handler"};
    const int number = ++signals;
    const std::string_view texts[] = {"one", "two", "three", "four"};
    Scope scope{fromHandler.get(),
                {{"number", number}, {"text", texts[number % 4]}, {"a", 1}, {"b", 2}, {"c", 3}}};
    fromHandler.get().instant({{"number", number}});
    fromHandler.get().stop(fromHandler.get().start({{"text", texts[number % 4]}}));
}

class SignalTest : public ControlsTest {
  protected:
    static constexpr int wanted = 2000;
    void SetUp() override {
        controls.enableAll(true);
        signals = 0;
    }
};

TEST_F(SignalTest, AHandlerThatInterruptsMallocEmits) {
    CountingListener counting;
    listeners.add(counting);
    {
        const TimerSignals timer(emitFromHandler);
        std::vector<std::unique_ptr<char[]>> blocks(64);
        for (std::size_t i = 0; signals < wanted; ++i)
            blocks[i % blocks.size()] = std::make_unique<char[]>(1 + i * 37 % 5000);
    }
    EXPECT_EQ(counting.starts, counting.stops);
    EXPECT_EQ(counting.starts, 2u * static_cast<unsigned>(signals.load()));
}

TEST_F(SignalTest, AHandlerThatInterruptsADeliveryIsCountedAsSuppressedOrHeard) {
    CountingListener counting;
    listeners.add(counting);
    const Instrument main("signals.main");
    const std::uint64_t before = listeners.suppressedEvents();
    std::uint64_t own = 0;
    {
        const TimerSignals timer(emitFromHandler);
        for (; signals < wanted; ++own)
            Scope scope{main, {{"n", static_cast<int>(own % 100)}, {"text", "some"}}};
    }
    // A handler's scope and start are delivered with their stops, and an instant, or none of them.
    EXPECT_EQ(counting.starts, counting.stops);
    const std::uint64_t suppressed = listeners.suppressedEvents() - before;
    EXPECT_EQ(counting.starts + counting.instants + suppressed,
              own + 3u * static_cast<unsigned>(signals.load()));
}

TEST_F(SignalTest, AHandlerThatInterruptsSwitchingRegisteringAndNamingEmits) {
    CountingListener counting;
    listeners.add(counting);
    {
        const TimerSignals timer(emitFromHandler);
        for (int i = 0; signals < wanted; ++i) {
            CountingListener passing;
            listeners.add(passing);
            controls.getHandle("signals." + std::to_string(i % 5000));
            controls.enable("from the handler", ContextEntry{"number", std::to_string(i % 50)});
            controls.enableAll(true);
            setThreadName("name " + std::to_string(i % 5000));
            listeners.remove(passing);
        }
    }
    setThreadName("main");
    EXPECT_EQ(counting.starts, counting.stops);
}

}  // namespace
}  // namespace instrument
