// Threads come and go: what they leave behind, and events from what runs at their end.
#include <gtest/gtest.h>
#include <pthread.h>

#include <thread>

#include "zandor/instrument/instrument.hpp"
#include "zandor/instrument/source.hpp"
#include "zandor/instrument/testing/event_log.hpp"
#include "zandor/instrument/thread_state.hpp"
#include "zandor/runtime/sanitizers.hpp"

namespace instrument {
namespace {

using detail::threadStateCounts;
using test_support::ControlsTest;
using test_support::CountingListener;
using test_support::EventLog;
using test_support::onThreads;

class ThreadEndTest : public ControlsTest {
  protected:
    void SetUp() override {
        ControlsTest::SetUp();
        controls.enable("solve");
    }
    const Instrument solve{"solve"};
    const Instrument off{"thread end.off"};
};

TEST_F(ThreadEndTest, ThreadsThatOnlyMeetDisabledInstrumentsGetNoState) {
    CountingListener counting;
    listeners.add(counting);
    const std::uint64_t before = threadStateCounts().made;
    for (int i = 0; i < 20'000; ++i)
        std::thread([&] {
            Scope scope{off};
            Scope withContext{off, {{"n", 1}}};
            off.instant();
            off.stop(off.start());
        }).join();
    EXPECT_EQ(threadStateCounts().made, before);
    EXPECT_EQ(counting.total(), 0u);
}

TEST_F(ThreadEndTest, StatesOfEndedThreadsAreUsedAgainUnderNewSources) {
    EventLog log;
    listeners.add(log);
    const auto before = threadStateCounts();
    for (int i = 0; i < 2000; ++i)
        std::thread([&] { solve.instant(); }).join();
    EXPECT_EQ(threadStateCounts().inUse, before.inUse);
    EXPECT_EQ(threadStateCounts().made, before.made + 2000);
    const auto events = log.events();
    ASSERT_EQ(events.size(), 2000u);
    for (std::size_t i = 1; i < events.size(); ++i) {
        EXPECT_GT(events[i].id.sourceId, events[i - 1].id.sourceId);
        EXPECT_EQ(events[i].id.serialId, 1u);
    }
}

TEST_F(ThreadEndTest, ManyThreadsAtOnceHaveStatesOfTheirOwn) {
    CountingListener counting;
    listeners.add(counting);
    const auto before = threadStateCounts();
    onThreads(200, [&](int) {
        for (int i = 0; i < 50; ++i)
            Scope scope{solve};
    });
    EXPECT_EQ(counting.starts, 10'000u);
    EXPECT_EQ(counting.stops, 10'000u);
    EXPECT_EQ(threadStateCounts().inUse, before.inUse);
}

struct EmitsAtTheEnd {
    const Instrument* instrument = nullptr;
    ~EmitsAtTheEnd() {
        if (instrument)
            instrument->instant();
    }
};
thread_local EmitsAtTheEnd emitsAtTheEnd;

TEST_F(ThreadEndTest, EventsOfThreadLocalDestructorsHaveTheThreadsSource) {
    EventLog log;
    listeners.add(log);
    std::thread([&] {
        emitsAtTheEnd.instrument = &solve;
        setThreadName("ending");
        solve.instant();
    }).join();
    const auto events = log.events();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].id.sourceId, events[1].id.sourceId);
    EXPECT_EQ(events[1].id.serialId, 2u);
    EXPECT_EQ(events[1].sourceName, "ending");
}

pthread_key_t emittingKey;

// Emits in three rounds of destructors.
void emitFromKey(void* left) {
    Instrument("solve").instant();
    const auto rounds = reinterpret_cast<std::uintptr_t>(left);
    if (rounds > 1)
        pthread_setspecific(emittingKey, reinterpret_cast<void*>(rounds - 1));
}

class ThreadKeyTest : public ThreadEndTest {
  protected:
    void SetUp() override {
        ThreadEndTest::SetUp();
        pthread_key_create(&emittingKey, emitFromKey);
    }
    void TearDown() override {
        pthread_key_delete(emittingKey);
        ThreadEndTest::TearDown();
    }
};

TEST_F(ThreadKeyTest, EventsOfThreadSpecificDestructorsHaveTheThreadsSource) {
    EventLog log;
    listeners.add(log);
    const auto before = threadStateCounts();
    std::thread([&] {
        solve.instant();
        pthread_setspecific(emittingKey, reinterpret_cast<void*>(2));
    }).join();
    const auto events = log.events();
    ASSERT_EQ(events.size(), 3u);
    for (const auto& event : events)
        EXPECT_EQ(event.id.sourceId, events[0].id.sourceId);
    EXPECT_EQ(threadStateCounts().inUse, before.inUse);
}

// The thread sanitizer's own part of a thread ends before the last round of destructors.
#if !ZANDOR_THREAD_SANITIZED

TEST_F(ThreadKeyTest, AThreadWhoseFirstEventComesAtItsEndLeavesNoState) {
    EventLog log;
    listeners.add(log);
    const auto before = threadStateCounts();
    std::thread([] { pthread_setspecific(emittingKey, reinterpret_cast<void*>(1)); }).join();
    EXPECT_EQ(log.events().size(), 1u);
    EXPECT_EQ(threadStateCounts().inUse, before.inUse);
}

TEST_F(ThreadKeyTest, EventsPastTheLastRoundAreHeardOrCounted) {
    EventLog log;
    listeners.add(log);
    const std::uint64_t before = listeners.suppressedEvents();
    std::thread([&] {
        solve.instant();
        pthread_setspecific(emittingKey, reinterpret_cast<void*>(4));
    }).join();
    EXPECT_EQ(log.events().size() + (listeners.suppressedEvents() - before), 5u);
}

#endif

}  // namespace
}  // namespace instrument
