// What a recorder tells of the events that it heard.
#include <gmock/gmock.h>

#include <memory>
#include <thread>

#include "testing/recorder_support.hpp"
#include "zandor/instrument/clock.hpp"
#include "zandor/instrument/source.hpp"

namespace instrument {
namespace {

using test_support::Listening;
using test_support::textOf;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class RecorderEvents : public test_support::RecorderTest {
  protected:
    std::vector<std::string> names(const std::vector<InstrumentRecorder::Event>& events) const {
        std::vector<std::string> names;
        for (const auto& event : events)
            names.emplace_back(event.name);
        return names;
    }
    /// "start outer", "stop outer [n=1]".
    std::vector<std::string> points(const std::vector<InstrumentRecorder::EventPoint>& all) const {
        std::vector<std::string> texts;
        for (const auto& point : all)
            texts.push_back(std::string(getName(point.type)) + ' ' +
                            combineEventNameWithContext(std::string(point.name), point.context));
        return texts;
    }

    InstrumentRecorder recorder_;
    const Instrument outer_{"outer"};
    const Instrument inner_{"inner"};
};

TEST_F(RecorderEvents, HasNothingBeforeTheFirstEvent) {
    EXPECT_THAT(recorder_.getAllEvents(), IsEmpty());
    EXPECT_THAT(recorder_.getAllEventPoints(), IsEmpty());
    EXPECT_THAT(recorder_.getAllEventStats(), IsEmpty());
    EXPECT_EQ(recorder_.bytesInUse(), 0u);
    EXPECT_EQ(recorder_.drops().total(), 0u);
}

TEST_F(RecorderEvents, AreStartsWithTheirStopsInOrderOfStart) {
    const Listening listening(recorder_);
    const std::int64_t before = clock::now();
    {
        const Scope outer{outer_};
        const Scope inner{inner_};
    }
    const std::int64_t after = clock::now();
    const auto events = recorder_.getAllEvents();
    ASSERT_THAT(names(events), ElementsAre("outer", "inner"));
    EXPECT_LE(before, events[0].startTimePoint);
    EXPECT_LE(events[0].startTimePoint, events[1].startTimePoint);
    EXPECT_LE(events[1].startTimePoint, events[1].stopTimePoint);
    EXPECT_LE(events[1].stopTimePoint, events[0].stopTimePoint);
    EXPECT_LE(events[0].stopTimePoint, after);
    EXPECT_EQ(events[0].id.serialId + 1, events[1].id.serialId);
    EXPECT_EQ(events[0].id.sourceId, events[1].id.sourceId);
    EXPECT_EQ(events[0].duration(), events[0].stopTimePoint - events[0].startTimePoint);
}

TEST_F(RecorderEvents, LeaveOutWhatIsOpen) {
    const Listening listening(recorder_);
    const auto open = outer_.start();
    inner_.stop(inner_.start());
    EXPECT_THAT(names(recorder_.getAllEvents()), ElementsAre("inner"));
    EXPECT_THAT(points(recorder_.getAllEventPoints()),
                ElementsAre("start outer", "start inner", "stop inner"));
    outer_.stop(open);
    EXPECT_THAT(names(recorder_.getAllEvents()), ElementsAre("outer", "inner"));
}

TEST_F(RecorderEvents, MatchStopsThatCross) {
    const Listening listening(recorder_);
    const auto first = outer_.start();
    const auto second = inner_.start();
    outer_.stop(first);
    inner_.stop(second);
    EXPECT_THAT(names(recorder_.getAllEvents()), ElementsAre("outer", "inner"));
}

TEST_F(RecorderEvents, MatchManyThatEndInTheOrderOfTheirStarts) {
    const Listening listening(recorder_);
    std::vector<OpenEvent> open;
    for (int i = 0; i < 1000; ++i)
        open.push_back(outer_.start());
    for (int i = 0; i < 1000; ++i) {
        outer_.stop(open[static_cast<std::size_t>(i)]);
        open.push_back(inner_.start());
    }
    const auto events = recorder_.getAllEvents();
    ASSERT_THAT(events, SizeIs(1000));
    for (std::size_t i = 0; i < events.size(); ++i)
        EXPECT_EQ(events[i].id, open[i].id());
}

TEST_F(RecorderEvents, MayEndOnAnotherThread) {
    const Listening listening(recorder_);
    setThreadName("starter");
    const auto open = outer_.start({{"n", 1}});
    std::thread([&] {
        setThreadName("stopper");
        outer_.stop(open);
    }).join();
    const auto events = recorder_.getAllEvents();
    ASSERT_THAT(events, SizeIs(1));
    EXPECT_EQ(events[0].source, "starter");
    EXPECT_EQ(events[0].sourceName(), "starter");
    EXPECT_EQ(textOf(events[0].context), "n=1");
    const auto points = recorder_.getAllEventPoints();
    ASSERT_THAT(points, SizeIs(2));
    EXPECT_EQ(points[0].source, "starter");
    EXPECT_EQ(points[1].source, "stopper");
    EXPECT_EQ(points[1].type, EventPointType::stop);
    EXPECT_EQ(points[1].id, events[0].id);
    EXPECT_EQ(textOf(points[1].context), "n=1");
}

TEST_F(RecorderEvents, EndWithTheFirstOfTwoStops) {
    const Listening listening(recorder_);
    const auto open = outer_.start({{"n", 1}});
    std::thread([&] { outer_.stop(open); }).join();
    outer_.stop(open);
    std::thread([&] { outer_.stop(open); }).join();
    const auto events = recorder_.getAllEvents();
    ASSERT_THAT(events, SizeIs(1));
    const auto points = recorder_.getAllEventPoints();
    ASSERT_THAT(this->points(points), ElementsAre("start outer [n=1]", "stop outer [n=1]",
                                                  "stop outer [n=1]", "stop outer [n=1]"));
    EXPECT_EQ(events[0].stopTimePoint, points[1].timePoint);
}

TEST_F(RecorderEvents, OfTwoStopsOnTheirThreadEndWithTheFirst) {
    const Listening listening(recorder_);
    const auto open = outer_.start({{"n", 1}});
    outer_.stop(open);
    outer_.stop(open);
    const auto events = recorder_.getAllEvents();
    const auto points = recorder_.getAllEventPoints();
    ASSERT_THAT(events, SizeIs(1));
    ASSERT_THAT(this->points(points),
                ElementsAre("start outer [n=1]", "stop outer [n=1]", "stop outer [n=1]"));
    EXPECT_EQ(events[0].stopTimePoint, points[1].timePoint);
}

TEST_F(RecorderEvents, ShowAStopOfAnUnknownEventAsAPoint) {
    const Instrument plain{"started before"};
    InstrumentRecorder other;
    const Listening otherListening(other);
    const auto open = plain.start({{"n", 1}});
    const Listening listening(recorder_);
    plain.stop(open);
    EXPECT_THAT(recorder_.getAllEvents(), IsEmpty());
    EXPECT_THAT(points(recorder_.getAllEventPoints()), ElementsAre("stop started before [n=1]"));
    EXPECT_THAT(other.getAllEvents(), SizeIs(1));
}

TEST_F(RecorderEvents, ShowInstantsAsPoints) {
    const Listening listening(recorder_);
    outer_.instant();
    inner_.instant({{"why", "test"}});
    EXPECT_THAT(recorder_.getAllEvents(), IsEmpty());
    const auto points = recorder_.getAllEventPoints();
    EXPECT_THAT(this->points(points), ElementsAre("instant outer", "instant inner [why=test]"));
    EXPECT_EQ(points[0].serialId() + 1, points[1].serialId());
}

TEST_F(RecorderEvents, AreFoundByName) {
    const Listening listening(recorder_);
    for (int i = 0; i < 3; ++i)
        inner_.stop(inner_.start());
    outer_.stop(outer_.start());
    outer_.instant();
    EXPECT_THAT(names(recorder_.getEvents("outer")), ElementsAre("outer"));
    EXPECT_THAT(recorder_.getEvents("inner"), SizeIs(3));
    EXPECT_THAT(recorder_.getEvents("nobody knows this name"), IsEmpty());
    EXPECT_THAT(points(recorder_.getEventPoints("outer")),
                ElementsAre("start outer", "stop outer", "instant outer"));
    EXPECT_THAT(recorder_.getEventPoints("nobody knows this name"), IsEmpty());
}

TEST_F(RecorderEvents, AreFoundByEveryGivenEntry) {
    const Listening listening(recorder_);
    for (int n = 1; n <= 2; ++n)
        for (const char* method : {"cg", "gmres"})
            outer_.stop(outer_.start({{"n", n}, {"method", method}}));
    outer_.stop(outer_.start());
    EXPECT_THAT(recorder_.getEventsForContext("outer", {}), SizeIs(5));
    EXPECT_THAT(recorder_.getEventsForContext("outer", {{"n", "1"}}), SizeIs(2));
    const auto both = recorder_.getEventsForContext("outer", {{"n", "2"}, {"method", "cg"}});
    ASSERT_THAT(both, SizeIs(1));
    EXPECT_EQ(textOf(both[0].context), "method=cg n=2");
    EXPECT_THAT(recorder_.getEventsForContext("outer", {{"n", "1"}, {"n", "2"}}), IsEmpty());
    EXPECT_THAT(recorder_.getEventsForContext("inner", {{"n", "1"}}), IsEmpty());
    EXPECT_THAT(points(recorder_.getEventPointsForContext("outer", {{"n", "2"}, {"method", "cg"}})),
                ElementsAre("start outer [method=cg, n=2]", "stop outer [method=cg, n=2]"));
}

TEST_F(RecorderEvents, KeepTheContextThatAStopWasGiven) {
    const Listening listening(recorder_);
    ContextSet same{{"n", "1"}};
    const EventId id = listeners.onEventStart(outer_.handle(), ContextSet{{"n", "1"}});
    listeners.onEventStop(outer_.handle(), std::move(same), id);
    const EventId other = listeners.onEventStart(outer_.handle(), ContextSet{{"n", "1"}});
    listeners.onEventStop(inner_.handle(), ContextSet{{"n", "2"}}, other);
    EXPECT_THAT(points(recorder_.getAllEventPoints()),
                ElementsAre("start outer [n=1]", "stop outer [n=1]", "start outer [n=1]",
                            "stop inner [n=2]"));
    const auto events = recorder_.getAllEvents();
    ASSERT_THAT(names(events), ElementsAre("outer", "outer"));
    EXPECT_EQ(textOf(events[1].context), "n=1");
}

TEST_F(RecorderEvents, ReadContextsBackAsText) {
    const Listening listening(recorder_);
    const std::string text = "a text that is \xff not quite UTF-8";
    outer_.stop(outer_.start({{"text", text},
                              {"int", -3},
                              {"big", ~std::uint64_t{0}},
                              {"real", 0.1},
                              {"on", true},
                              {"off", false},
                              {"empty", ""}}));
    ContextSet set;
    for (const char* name : {"big", "empty", "int", "off", "on", "real", "text"})
        set.insert({name, name == std::string_view("text") ? text : "?"});
    for (ContextEntry& entry : set) {
        if (entry.name == "big")
            entry.value = "18446744073709551615";
        else if (entry.name == "empty")
            entry.value.clear();
        else if (entry.name == "int")
            entry.value = "-3";
        else if (entry.name == "off")
            entry.value = "false";
        else if (entry.name == "on")
            entry.value = "true";
        else if (entry.name == "real")
            entry.value = "0.1";
    }
    const EventId id = listeners.onEventStart(outer_.handle(), ContextSet(set));
    listeners.onEventStop(outer_.handle(), ContextSet(set), id);
    const auto events = recorder_.getAllEvents();
    ASSERT_THAT(events, SizeIs(2));
    EXPECT_TRUE(events[0].context == set) << textOf(events[0].context);
    EXPECT_TRUE(events[1].context == set) << textOf(events[1].context);
}

TEST_F(RecorderEvents, TakeTheFirstOfEntriesWithEqualNames) {
    const Listening listening(recorder_);
    outer_.stop(outer_.start({{"n", 1}, {"m", 0}, {"n", "two"}}));
    const auto events = recorder_.getAllEvents();
    ASSERT_THAT(events, SizeIs(1));
    EXPECT_EQ(textOf(events[0].context), "m=0 n=1");
}

TEST_F(RecorderEvents, HoldContextsOfAnySize) {
    const Listening listening(recorder_);
    for (const std::size_t size : {253u, 254u, 255u, 300u, 100'000u}) {
        ContextSet set;
        std::vector<std::string> entryNames;
        for (std::size_t i = 0; i < size; ++i)
            entryNames.push_back("entry" + std::to_string(1'000'000 + i));
        for (const std::string& name : entryNames)
            set.insert(set.end(), {name, "value"});
        const EventId id = listeners.onEventStart(outer_.handle(), ContextSet(set));
        listeners.onEventStop(outer_.handle(), ContextSet(set), id);
        const auto events = recorder_.getAllEvents();
        ASSERT_THAT(events, SizeIs(1));
        EXPECT_TRUE(events[0].context == set) << size;
        const auto points = recorder_.getAllEventPoints();
        ASSERT_THAT(points, SizeIs(2));
        EXPECT_TRUE(points[1].context == set) << size;
        recorder_.clearAllEventData();
    }
}

TEST_F(RecorderEvents, OutliveTheirNamesAndTexts) {
    const Listening listening(recorder_);
    {
        const auto name = std::make_unique<std::string>("a name on the heap, longer than a few");
        const auto key = std::make_unique<std::string>("a key on the heap, longer than a few");
        const auto value = std::make_unique<std::string>("a value on the heap, longer than a few");
        const Instrument instrument{*name};
        instrument.stop(instrument.start({{*key, *value}}));
    }
    const auto events = recorder_.getAllEvents();
    ASSERT_THAT(events, SizeIs(1));
    EXPECT_EQ(events[0].name, "a name on the heap, longer than a few");
    EXPECT_EQ(textOf(events[0].context),
              "a key on the heap, longer than a few=a value on the heap, longer than a few");
}

TEST_F(RecorderEvents, WithGivenTimesKeepThem) {
    const Listening listening(recorder_);
    const std::uint64_t source = addExternalSource("client", "worker", 4711, 4712);
    listeners.onEventStartAt(outer_.handle(), {{"n", "1"}}, {source, 1}, 2000);
    listeners.onEventStartAt(inner_.handle(), {}, {source, 2}, 2100);
    listeners.onEventInstantAt(inner_.handle(), {}, {source, 3}, 2200);
    listeners.onEventStopAt(inner_.handle(), {}, {source, 2}, 2050);
    listeners.onEventStopAt(outer_.handle(), {{"n", "1"}}, {source, 1}, 3000);
    const auto events = recorder_.getAllEvents();
    ASSERT_THAT(names(events), ElementsAre("outer", "inner"));
    EXPECT_EQ(events[0].startTimePoint, 2000);
    EXPECT_EQ(events[0].duration(), 1000);
    EXPECT_EQ(events[0].source, "client/worker");
    EXPECT_EQ(events[0].id, (EventId{source, 1}));
    EXPECT_EQ(events[1].duration(), -50);
    EXPECT_THAT(points(recorder_.getAllEventPoints()),
                ElementsAre("start outer [n=1]", "stop inner", "start inner", "instant inner",
                            "stop outer [n=1]"));
}

TEST_F(RecorderEvents, OfOneSourceMayComeThroughSeveralThreads) {
    const Listening listening(recorder_);
    const std::uint64_t source = addExternalSource("client", "worker", 1, 2);
    const auto start = [&](std::uint64_t serial) {
        listeners.onEventStartAt(outer_.handle(), {}, {source, serial},
                                 std::int64_t(1000 * serial));
    };
    const auto stop = [&](std::uint64_t serial) {
        listeners.onEventStopAt(outer_.handle(), {}, {source, serial},
                                std::int64_t(1000 * serial + 7));
    };
    start(1);
    std::thread([&] {
        stop(1);
        start(2);
        start(3);
        stop(3);
        start(4);
    }).join();
    start(5);
    stop(4);
    stop(2);
    std::thread([&] { stop(5); }).join();
    const auto events = recorder_.getAllEvents();
    ASSERT_THAT(events, SizeIs(5));
    for (std::size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(events[i].id.serialId, i + 1);
        EXPECT_EQ(events[i].duration(), 7);
    }
}

TEST_F(RecorderEvents, OfSeveralVirtualMachinesOnOneThreadAreOfSeveralSources) {
    const Listening listening(recorder_);
    std::vector<EventId> ids;
    for (int round = 0; round < 3; ++round)
        for (std::uint64_t tag = 0; tag < 3; ++tag)
            ids.push_back(listeners.onEventStart(outer_.handle(), {}, tag));
    for (std::size_t i = 0; i < ids.size(); ++i)
        listeners.onEventStop(outer_.handle(), {}, ids[i], i % 3);
    const auto events = recorder_.getAllEvents();
    ASSERT_THAT(events, SizeIs(9));
    for (std::size_t i = 0; i < ids.size(); ++i)
        EXPECT_EQ(events[i].id, ids[i]);
    EXPECT_NE(ids[0].sourceId, ids[1].sourceId);
}

TEST_F(RecorderEvents, OfTheSameTimeAreOrderedBySource) {
    const Listening listening(recorder_);
    const std::uint64_t first = addExternalSource("p", "1", 1, 1);
    const std::uint64_t second = addExternalSource("p", "2", 1, 2);
    for (const std::uint64_t serial : {1, 2})
        for (const std::uint64_t source : {second, first}) {
            listeners.onEventStartAt(outer_.handle(), {}, {source, serial}, 50);
            listeners.onEventStopAt(outer_.handle(), {}, {source, serial}, 60);
        }
    std::vector<EventId> ids;
    for (const auto& event : recorder_.getAllEvents())
        ids.push_back(event.id);
    EXPECT_THAT(ids, ElementsAre(EventId{first, 1}, EventId{first, 2}, EventId{second, 1},
                                 EventId{second, 2}));
}

}  // namespace
}  // namespace instrument
