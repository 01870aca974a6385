#include <gtest/gtest.h>

#include <barrier>
#include <future>
#include <memory>

#include "zandor/instrument/listeners.hpp"
#include "zandor/instrument/testing/event_log.hpp"

namespace instrument {
namespace {

using test_support::ControlsTest;
using test_support::CountingListener;
using test_support::EventLog;
using test_support::HandlerListener;
using test_support::onThreads;

class ListenerRemovalTest : public ControlsTest {
  protected:
    void emit() const { listeners.onEventInstant(solve, ContextSet()); }
    const Opaque* solve = controls.getHandle("solve");
};

/// Holds the thread that calls it until it is let go.
class Gate {
  public:
    void pass() {
        entered_.set_value();
        opened_.get_future().wait();
    }
    void waitForSomebody() { entered_.get_future().wait(); }
    void open() { opened_.set_value(); }

  private:
    std::promise<void> entered_;
    std::promise<void> opened_;
};

TEST_F(ListenerRemovalTest, RemovingOutsideWaitsUntilNobodyIsInside) {
    Gate gate;
    std::atomic<bool> left{false};
    HandlerListener slow([&](auto&&...) {
        gate.pass();
        left = true;
    });
    listeners.add(slow);
    std::thread emitting([&] { emit(); });
    gate.waitForSomebody();
    auto removal = std::async(std::launch::async, [&] {
        listeners.remove(slow);
        return left.load();
    });
    // Nobody may begin a new call once the removal has begun, whether or not it has ended.
    while (listeners.has(slow))
        std::this_thread::yield();
    emit();
    gate.open();
    EXPECT_TRUE(removal.get());
    emitting.join();
}

TEST_F(ListenerRemovalTest, ACallThatHasPassedAListenerDoesNotHoldItsRemoval) {
    Gate gate;
    CountingListener quick;
    HandlerListener slow([&](auto&&...) { gate.pass(); });
    listeners.add(quick);
    listeners.add(slow);
    std::thread emitting([&] { emit(); });
    gate.waitForSomebody();
    listeners.remove(quick);  // returns although the event is still being delivered
    gate.open();
    emitting.join();
    EXPECT_EQ(quick.total(), 1u);
}

TEST_F(ListenerRemovalTest, AListenerMayRemoveItselfAndOthersFromItsCallback) {
    CountingListener after;
    HandlerListener self([&](auto&&...) {
        listeners.remove(self);
        listeners.remove(after);
    });
    listeners.add(self);
    listeners.add(after);
    emit();
    EXPECT_EQ(after.total(), 0u) << "a removed listener was called by the event that removed it";
    EXPECT_FALSE(listeners.anyActive());
    emit();
}

TEST_F(ListenerRemovalTest, AListenerAddedByACallbackHearsTheNextEvent) {
    CountingListener late;
    HandlerListener adder([&](auto&&...) { listeners.add(late); });
    listeners.add(adder);
    emit();
    EXPECT_EQ(late.total(), 0u);
    emit();
    EXPECT_EQ(late.total(), 1u);
}

TEST_F(ListenerRemovalTest, CallbacksThatRemoveEachOtherDoNotWaitForEachOther) {
    for (int round = 0; round < 50; ++round) {
        std::barrier inside(2);
        std::unique_ptr<HandlerListener> listening[2];
        // Each thread is inside one listener and takes out the other.
        for (int i : {0, 1})
            listening[i] = std::make_unique<HandlerListener>(
                [&, i](EventPointType, const Opaque* instrument, auto&&...) {
                    if (instrument->name != std::string("cross") + std::to_string(i))
                        return;
                    inside.arrive_and_wait();
                    listeners.remove(*listening[1 - i]);
                    inside.arrive_and_wait();
                });
        for (auto& listener : listening)
            listeners.add(*listener);
        onThreads(2, [&](int i) {
            listeners.onEventInstant(controls.getHandle("cross" + std::to_string(i)), ContextSet());
        });
        EXPECT_FALSE(listeners.anyActive());
        for (auto& listener : listening)
            listeners.drain(*listener);
    }
}

/// A listener takes itself out while another thread is inside it; `wait` must wait for that thread.
void waitsAfterARemovalThatDidNot(void (*wait)(InstrumentListener&)) {
    Gate gate;
    std::atomic<bool> left{false};
    HandlerListener slow([&](EventPointType, const Opaque* instrument, auto&&...) {
        if (instrument->name == std::string("remove")) {
            listeners.remove(slow);
            return;
        }
        gate.pass();
        left = true;
    });
    listeners.add(slow);
    const auto emit = [](const char* name) {
        listeners.onEventInstant(controls.getHandle(name), ContextSet());
    };
    std::thread emitting(emit, "solve");
    gate.waitForSomebody();
    emit("remove");
    EXPECT_FALSE(listeners.has(slow));
    auto waited = std::async(std::launch::async, [&] {
        wait(slow);
        return left.load();
    });
    gate.open();
    EXPECT_TRUE(waited.get());
    emitting.join();
}

TEST_F(ListenerRemovalTest, DrainingWaitsAfterARemovalInsideACallback) {
    waitsAfterARemovalThatDidNot([](InstrumentListener& slow) { listeners.drain(slow); });
}

TEST_F(ListenerRemovalTest, RemovingAgainWaitsAfterARemovalInsideACallback) {
    waitsAfterARemovalThatDidNot([](InstrumentListener& slow) { listeners.remove(slow); });
}

TEST_F(ListenerRemovalTest, WhoeverIsRegisteredThroughoutMissesAndRepeatsNothing) {
    constexpr int emitters = 8;
    constexpr std::uint64_t events = 20'000;
    CountingListener throughout;
    CountingListener alsoThroughout;
    std::atomic<int> running{emitters};
    listeners.add(throughout);
    std::thread changing([&] {
        bool second = false;
        while (running > 0) {
            auto passing = std::make_unique<CountingListener>();
            listeners.add(*passing);
            if (!second)
                listeners.add(alsoThroughout);
            second = true;
            listeners.remove(*passing);
            passing.reset();
        }
    });
    while (!listeners.has(alsoThroughout))
        std::this_thread::yield();
    onThreads(emitters, [&](int) {
        for (std::uint64_t i = 0; i < events; ++i)
            emit();
        --running;
    });
    changing.join();
    EXPECT_EQ(throughout.total(), emitters * events);
    EXPECT_EQ(alsoThroughout.total(), emitters * events);
}

TEST_F(ListenerRemovalTest, AListenerMayGoAsSoonAsItsRemovalReturns) {
    std::atomic<bool> done{false};
    onThreads(4, [&](int thread) {
        if (thread == 0) {
            for (int i = 0; i < 2000; ++i) {
                auto listener = std::make_unique<EventLog>();
                listeners.add(*listener);
                listeners.remove(*listener);
            }
            done = true;
        }
        while (!done)
            emit();
    });
}

}  // namespace
}  // namespace instrument
