#include "zandor/instrument/listeners.hpp"

#include <gtest/gtest.h>

#include <stdexcept>

#include "zandor/instrument/clock.hpp"
#include "zandor/instrument/source.hpp"
#include "zandor/instrument/testing/event_log.hpp"

namespace instrument {
namespace {

using test_support::ControlsTest;
using test_support::CountingListener;
using test_support::EventLog;
using test_support::HandlerListener;
using test_support::HeardEvent;
using test_support::onThreads;

class ListenersTest : public ControlsTest {
  protected:
    const Opaque* solve = controls.getHandle("solve");
};

TEST_F(ListenersTest, TheFlagIsUpWhileSomebodyIsRegistered) {
    EXPECT_FALSE(listeners.anyActive());
    EventLog first;
    EventLog second;
    listeners.add(first);
    EXPECT_TRUE(listeners.anyListenerActive);
    listeners.add(second);
    listeners.remove(first);
    EXPECT_TRUE(listeners.anyActive());
    EXPECT_FALSE(listeners.has(first));
    EXPECT_TRUE(listeners.has(second));
    listeners.remove(second);
    EXPECT_FALSE(listeners.anyActive());
}

TEST_F(ListenersTest, AddingTwiceIsAddingOnceAndRemovingTwiceDoesNothing) {
    EventLog log;
    listeners.add(log);
    listeners.add(log);
    listeners.onEventInstant(solve, ContextSet());
    EXPECT_EQ(log.story(), "instant solve");
    listeners.remove(log);
    listeners.remove(log);
    listeners.onEventInstant(solve, ContextSet());
    EXPECT_EQ(log.story(), "instant solve");
}

TEST_F(ListenersTest, ListenersHearInOrderOfTheirRegistration) {
    std::string order;
    const auto says = [&order](char letter) {
        return [&order, letter](auto&&...) { order += letter; };
    };
    HandlerListener a(says('a'));
    HandlerListener b(says('b'));
    HandlerListener c(says('c'));
    for (HandlerListener* listener : {&b, &a, &c})
        listeners.add(*listener);
    listeners.onEventInstant(solve, ContextSet());
    EXPECT_EQ(order, "bac");
    listeners.remove(b);
    listeners.add(b);
    listeners.onEventInstant(solve, ContextSet());
    EXPECT_EQ(order, "bacacb");
}

TEST_F(ListenersTest, AnEventIsToldWithItsContextIdAndSource) {
    EventLog log;
    listeners.add(log);
    const EventId id = listeners.onEventStart(
        solve, ContextSet{ContextEntry{"tol", "1e-6"}, ContextEntry{"n", "3"}});
    listeners.onEventStop(solve, ContextSet{ContextEntry{"n", "3"}}, id);
    listeners.remove(log);
    EXPECT_EQ(log.story(), "start solve [n=3 tol=1e-6], stop solve [n=3]");
    const auto events = log.events();
    EXPECT_EQ(events[0].id, id);
    EXPECT_EQ(events[1].id, id);
    EXPECT_NE(id.sourceId, 0u);
    EXPECT_EQ(events[0].sourceId, id.sourceId);
    EXPECT_FALSE(events[0].timeWasGiven);
    EXPECT_LE(events[0].time, events[1].time);
}

TEST_F(ListenersTest, SerialIdsCountStartsAndInstantsOfASourceFromOne) {
    EventLog log;
    listeners.add(log);
    std::thread([&] {
        EXPECT_EQ(listeners.onEventStart(solve, ContextSet()).serialId, 1u);
        listeners.onEventInstant(solve, ContextSet());
        listeners.onEventStop(solve, ContextSet(), {1, 1});
        EXPECT_EQ(listeners.onEventInstant(solve, ContextArgs()).serialId, 3u);
        EXPECT_EQ(listeners.onEventStart(solve, ContextArgs()).serialId, 4u);
    }).join();
    EXPECT_EQ(log.events()[1].id.serialId, 2u);
}

TEST_F(ListenersTest, EachThreadAndEachVirtualMachineIsASourceOfItsOwn) {
    EventLog log;
    listeners.add(log);
    const EventId main = listeners.onEventStart(solve, ContextSet());
    const EventId first = listeners.onEventStart(solve, ContextSet(), 7);
    const EventId again = listeners.onEventStart(solve, ContextSet(), 7);
    const EventId second = listeners.onEventStart(solve, ContextSet(), 8);
    EXPECT_NE(main.sourceId, first.sourceId);
    EXPECT_EQ(first.sourceId, again.sourceId);
    EXPECT_EQ(again.serialId, 2u);
    EXPECT_NE(first.sourceId, second.sourceId);
    std::thread([&] {
        const EventId elsewhere = listeners.onEventStart(solve, ContextSet(), 7);
        EXPECT_NE(elsewhere.sourceId, first.sourceId);
        EXPECT_EQ(elsewhere.serialId, 1u);
    }).join();
    EXPECT_EQ(log.events()[1].sourceId, first.sourceId);
}

TEST_F(ListenersTest, SourceIdsAreNeverUsedAgain) {
    EventLog log;
    listeners.add(log);
    std::vector<std::uint64_t> ids;
    for (int i = 0; i < 100; ++i)
        std::thread([&] {
            ids.push_back(listeners.onEventStart(solve, ContextSet()).sourceId);
        }).join();
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ(std::unique(ids.begin(), ids.end()), ids.end());
}

TEST_F(ListenersTest, AStopOfAnyIdentityIsDelivered) {
    EventLog log;
    listeners.add(log);
    listeners.onEventStop(solve, ContextSet(), {0, 1});
    listeners.onEventStop(solve, ContextSet(), {12345, 678});
    const auto events = log.events();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].id, noListenerEventId);
    EXPECT_EQ(events[1].id, (EventId{12345, 678}));
}

TEST_F(ListenersTest, ArgumentsAreToldAsGivenAndAsASet) {
    std::vector<std::string> told;
    HandlerListener listener([&](EventPointType, const Opaque*, const EventContext& context,
                                 EventId, std::optional<std::int64_t>) {
        ASSERT_EQ(context.args().size(), 3u);
        EXPECT_EQ(context.args()[0].value.signedInteger(), 40);
        EXPECT_FALSE(context.empty());
        told.push_back(test_support::textOf(context.set()));
        EXPECT_EQ(&context.set(), &context.set());
        for (const ContextEntry& entry : context.set())
            EXPECT_EQ(entry.name.data()[entry.name.size()], '\0');
    });
    listeners.add(listener);
    const std::string names = "nm";
    const ContextArg args[] = {{std::string_view(names).substr(0, 1), 40},
                               {std::string_view(names).substr(1, 1), true},
                               {"n", "the second does not count"}};
    const EventId id = listeners.onEventStart(solve, args);
    listeners.onEventStop(solve, args, id);
    listeners.onEventInstant(solve, args);
    EXPECT_EQ(told, std::vector<std::string>(3, "m=true n=40"));
}

TEST_F(ListenersTest, AllListenersOfAnEdgeSeeTheSameInstant) {
    std::vector<std::int64_t> times;
    const auto look = [&](EventPointType, const Opaque*, const EventContext& context, EventId,
                          std::optional<std::int64_t>) {
        times.push_back(context.time());
        EXPECT_EQ(clock::toNanoseconds(context.ticks()), context.time());
    };
    HandlerListener first(look);
    HandlerListener second(look);
    listeners.add(first);
    listeners.add(second);
    listeners.onEventInstant(solve, ContextSet());
    listeners.onEventInstant(solve, ContextSet());
    ASSERT_EQ(times.size(), 4u);
    EXPECT_EQ(times[0], times[1]);
    EXPECT_EQ(times[2], times[3]);
    EXPECT_LE(times[1], times[2]);
}

TEST_F(ListenersTest, TheFirstExceptionReachesTheCallerAndTheOthersStillHear) {
    HandlerListener first([](auto&&...) { throw std::runtime_error("first"); });
    HandlerListener second([](auto&&...) { throw std::logic_error("second"); });
    EventLog log;
    listeners.add(first);
    listeners.add(second);
    listeners.add(log);
    const auto caught = [&](auto call) {
        try {
            call();
        } catch (const std::exception& error) {
            return std::string(error.what());
        }
        return std::string();
    };
    EXPECT_EQ(caught([&] { listeners.onEventStart(solve, ContextSet()); }), "first");
    EXPECT_EQ(caught([&] { listeners.onEventStop(solve, ContextSet(), {1, 1}); }), "first");
    EXPECT_EQ(caught([&] { listeners.onEventInstant(solve, ContextArgs()); }), "first");
    EXPECT_EQ(caught([&] { listeners.onEventStartAt(solve, ContextSet(), {1, 1}, 5); }), "first");
    EXPECT_EQ(log.story(), "start solve, stop solve, instant solve, start solve");
    listeners.remove(first);
    listeners.remove(second);
    EXPECT_NE(listeners.onEventStart(solve, ContextSet()), suppressedEventId)
        << "the mark of being inside was not taken back";
}

TEST_F(ListenersTest, EventsFromInsideAListenerAreCountedAndNotDelivered) {
    EventLog log;
    std::vector<EventId> inner;
    HandlerListener noisy([&](auto&&...) {
        inner.push_back(listeners.onEventStart(solve, ContextSet()));
        listeners.onEventStop(solve, ContextSet(), inner.back());
        listeners.onEventInstant(solve, ContextSet());
        listeners.onEventStartAt(solve, ContextSet(), {1, 1}, 1);
    });
    listeners.add(noisy);
    listeners.add(log);
    const std::uint64_t before = listeners.suppressedEvents();
    const EventId outer = listeners.onEventStart(solve, ContextSet());
    const EventId next = listeners.onEventStart(solve, ContextSet());
    EXPECT_EQ(listeners.suppressedEvents() - before, 8u);
    EXPECT_EQ(inner, std::vector<EventId>(2, suppressedEventId));
    EXPECT_EQ(log.story(), "start solve, start solve");
    EXPECT_EQ(next.serialId, outer.serialId + 1) << "suppressed events take no serial id";
}

TEST_F(ListenersTest, AnEventOfAnExternalSourceHasItsTimeIdAndNames) {
    EventLog log;
    listeners.add(log);
    const std::uint64_t source = addExternalSource("client", "worker", 4711, 4712);
    const std::uint64_t other = addExternalSource("client", "worker", 4711, 4712);
    EXPECT_NE(source, other);
    listeners.onEventStartAt(solve, ContextSet{ContextEntry{"n", "3"}}, {source, 9}, 1000);
    listeners.onEventStopAt(solve, ContextSet(), {source, 9}, 2500);
    listeners.onEventInstantAt(solve, ContextSet(), {other, 1}, -5);
    const auto events = log.events();
    EXPECT_EQ(log.story(), "start solve [n=3], stop solve, instant solve");
    EXPECT_EQ(events[0].time, 1000);
    EXPECT_EQ(events[1].time, 2500);
    EXPECT_EQ(events[2].time, -5);
    EXPECT_EQ(events[0].sourceId, source);
    EXPECT_EQ(events[0].sourceName, "worker");
    EXPECT_EQ(events[2].sourceId, other);
    EXPECT_TRUE(events[2].timeWasGiven);
    removeExternalSource(source);
    listeners.onEventInstantAt(solve, ContextSet(), {source, 10}, 3000);
    EXPECT_EQ(log.events().back().sourceId, source);
    EXPECT_EQ(log.events().back().sourceName, "");
    listeners.onEventInstantAt(solve, ContextSet(), {other, 2}, 3000);
    EXPECT_EQ(log.events().back().sourceName, "worker");
    removeExternalSource(other);
}

TEST_F(ListenersTest, EveryEventOfEveryThreadIsHeardOnce) {
    constexpr int threads = 8;
    constexpr int events = 5000;
    EventLog log;
    listeners.add(log);
    onThreads(threads, [&](int) {
        for (int i = 0; i < events; ++i)
            listeners.onEventInstant(solve, ContextSet());
    });
    auto heard = log.events();
    ASSERT_EQ(heard.size(), static_cast<std::size_t>(threads * events));
    std::map<std::uint64_t, std::uint64_t> latest;
    for (const HeardEvent& event : heard)
        EXPECT_EQ(event.id.serialId, ++latest[event.id.sourceId]);
    EXPECT_EQ(latest.size(), static_cast<std::size_t>(threads));
}

}  // namespace
}  // namespace instrument
