// The methods of the namespace "recorder", called as the host's users do.
#include "zandor/instrument/recorder.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "vantrace/testing/events.hpp"
#include "vantrace/testing/published.hpp"
#include "zandor/instrument/source.hpp"

namespace {

using instrument::ContextEntry;
using instrument::ContextSet;
using instrument::controls;
using instrument::listeners;
using vantrace_testing::fieldsOf;
using vantrace_testing::numberIn;
using vantrace_testing::Shape;
using vantrace_testing::shapeOf;
using vantrace_testing::text;
using vantrace_testing::textIn;
using vantrace_testing::texts;
using zandor::Value;
using Names = std::vector<std::string>;

template <typename... Values>
Value call(const std::string& name, Values&&... values) {
    return vantrace_testing::call("instrument.recorder." + name, std::forward<Values>(values)...);
}

bool isActive() {
    return call("isActive").asLogical();
}

class PublishedRecorder : public vantrace_testing::WithCleanControls {
  protected:
    void SetUp() override {
        call("stop");
        call("clearAllEventData");
    }
    void TearDown() override { SetUp(); }

    /// Adds a complete event whose times are known.
    void add(std::string_view name, std::initializer_list<ContextEntry> context, std::int64_t start,
             std::int64_t stop) {
        const auto* handle = controls.getHandle(name);
        const instrument::EventId id{source_, ++serial_};
        listeners.onEventStartAt(handle, ContextSet(context.begin(), context.end()), id, start);
        listeners.onEventStopAt(handle, ContextSet(context.begin(), context.end()), id, stop);
    }

    /// Two solves with their contexts and one io, while recording.
    void recordThree() {
        call("start");
        add("solve", {{"method", "cg"}, {"n", "3"}}, 1'000'000'000, 1'500'000'000);
        add("solve", {{"method", "lu"}}, 2'000'000'000, 3'000'000'000);
        add("io", {}, 4'000'000'000, 4'250'000'000);
        call("stop");
    }

  private:
    const std::uint64_t source_ = instrument::addExternalSource("client", "worker", 1, 1);
    std::uint64_t serial_ = 0;
};

TEST_F(PublishedRecorder, IsActiveExactlyBetweenStartAndStop) {
    EXPECT_FALSE(isActive());
    call("start");
    EXPECT_TRUE(isActive());
    call("stop");
    EXPECT_FALSE(isActive());
}

TEST_F(PublishedRecorder, SwitchesEverythingOnAndGivesTheFormerStateBack) {
    call("start");
    EXPECT_TRUE(controls.wereAllEnabled());
    call("stop");
    EXPECT_FALSE(controls.wereAllEnabled());
    controls.enableAll(true);
    call("start");
    call("stop");
    EXPECT_TRUE(controls.wereAllEnabled());
}

TEST_F(PublishedRecorder, StartedTwiceLeavesEverythingOnAfterTheStop) {
    call("start");
    call("start");
    call("stop");
    EXPECT_TRUE(controls.wereAllEnabled());
    EXPECT_FALSE(isActive());
}

TEST_F(PublishedRecorder, StoppedWithoutStartSwitchesEnableAllOff) {
    controls.enableAll(true);
    call("stop");
    EXPECT_FALSE(controls.wereAllEnabled());
}

TEST_F(PublishedRecorder, SavedStateIsForgottenByTheStop) {
    controls.enableAll(true);
    call("start");
    call("stop");
    call("stop");
    EXPECT_FALSE(controls.wereAllEnabled());
}

TEST_F(PublishedRecorder, WithNothingRecordedGivesEmptyArraysWithTheirFields) {
    const Value points = call("getAllEventPoints");
    EXPECT_EQ(shapeOf(points.asArray()), Shape(1, 0));
    EXPECT_EQ(fieldsOf(points.asArray()), (Names{"display", "name", "context", "source_name",
                                                 "serial_id", "type", "time_point"}));
    EXPECT_EQ(shapeOf(call("getAllEvents").asArray()), Shape(1, 0));
    EXPECT_EQ(shapeOf(call("getEvents", text("never")).asArray()), Shape(1, 0));
    EXPECT_EQ(shapeOf(call("getAllEventStats").asArray()), Shape(1, 0));
}

TEST_F(PublishedRecorder, WithNothingRecordedGivesAOneByZeroCellArrayOfStacks) {
    const Value stacks = call("getAllEventsCollapsedStacks");
    EXPECT_EQ(matrix::hx::hxGetClassId(stacks.asArray()), matrix::ClassId::cell);
    EXPECT_EQ(shapeOf(stacks.asArray()), Shape(1, 0));
}

TEST_F(PublishedRecorder, GivesTheEventsOfAllNames) {
    recordThree();
    const Value events = call("getAllEvents");
    EXPECT_EQ(shapeOf(events.asArray()), Shape(1, 3));
    EXPECT_EQ(fieldsOf(events.asArray()),
              (Names{"display", "name", "context", "source_name", "start_time_point",
                     "stop_time_point", "duration"}));
    EXPECT_EQ(textIn(events.asArray(), 0, "display"), "solve [method=cg, n=3]");
    EXPECT_EQ(textIn(events.asArray(), 2, "name"), "io");
    EXPECT_EQ(textIn(events.asArray(), 2, "source_name"), "client/worker");
    EXPECT_EQ(numberIn(events.asArray(), 0, "start_time_point"), 1.0);
    EXPECT_EQ(numberIn(events.asArray(), 0, "stop_time_point"), 1.5);
    EXPECT_EQ(numberIn(events.asArray(), 0, "duration"), 0.5);
}

TEST_F(PublishedRecorder, GivesTheEventsOfOneNameWithContextColumns) {
    recordThree();
    const Value events = call("getEvents", text("solve"));
    EXPECT_EQ(shapeOf(events.asArray()), Shape(1, 2));
    EXPECT_EQ(fieldsOf(events.asArray()),
              (Names{"name", "method", "n", "source_name", "start_time_point", "stop_time_point",
                     "duration"}));
    EXPECT_EQ(textIn(events.asArray(), 1, "method"), "lu");
    EXPECT_EQ(textIn(events.asArray(), 1, "n"), "");
}

TEST_F(PublishedRecorder, GivesTheEventsThatHoldEveryGivenEntry) {
    recordThree();
    const auto count = [](std::vector<std::string> context) {
        return shapeOf(call("getEventsForContext", text("solve"), texts(context)).asArray()).second;
    };
    EXPECT_EQ(count({}), 2u);
    EXPECT_EQ(count({"method", "cg"}), 1u);
    EXPECT_EQ(count({"method", "cg", "n", "3"}), 1u);
    EXPECT_EQ(count({"method", "lu", "n", "3"}), 0u);
}

TEST_F(PublishedRecorder, GivesEventPoints) {
    recordThree();
    const Value all = call("getAllEventPoints");
    EXPECT_EQ(shapeOf(all.asArray()), Shape(1, 6));
    EXPECT_EQ(textIn(all.asArray(), 0, "type"), "start");
    EXPECT_EQ(textIn(all.asArray(), 1, "type"), "stop");
    EXPECT_EQ(numberIn(all.asArray(), 1, "time_point"), 1.5);
    EXPECT_EQ(numberIn(all.asArray(), 5, "serial_id"), 3);
    const Value solves = call("getEventPoints", text("solve"));
    EXPECT_EQ(shapeOf(solves.asArray()), Shape(1, 4));
    EXPECT_EQ(fieldsOf(solves.asArray()),
              (Names{"name", "method", "n", "source_name", "serial_id", "type", "time_point"}));
    const Value lu = call("getEventPointsForContext", text("solve"), texts({"method", "lu"}));
    EXPECT_EQ(shapeOf(lu.asArray()), Shape(1, 2));
    EXPECT_EQ(numberIn(lu.asArray(), 0, "time_point"), 2.0);
}

TEST_F(PublishedRecorder, GivesStatsByName) {
    recordThree();
    const Value all = call("getAllEventStats");
    EXPECT_EQ(fieldsOf(all.asArray()), (Names{"name", "count", "duration"}));
    ASSERT_EQ(shapeOf(all.asArray()), Shape(1, 2));
    EXPECT_EQ(textIn(all.asArray(), 0, "name"), "io");
    EXPECT_EQ(textIn(all.asArray(), 1, "name"), "solve");
    EXPECT_EQ(numberIn(all.asArray(), 1, "count"), 2);
    EXPECT_EQ(numberIn(all.asArray(), 1, "duration"), 1.5);
    const Value solve = call("getEventStats", text("solve"));
    EXPECT_EQ(shapeOf(solve.asArray()), Shape(1, 1));
    EXPECT_EQ(fieldsOf(solve.asArray()), (Names{"name", "count", "duration"}));
    EXPECT_EQ(numberIn(solve.asArray(), 0, "count"), 2);
}

TEST_F(PublishedRecorder, GivesOneRecordForANameThatWasNeverSeen) {
    const Value plain = call("getEventStats", text("never"));
    EXPECT_EQ(shapeOf(plain.asArray()), Shape(1, 1));
    EXPECT_EQ(textIn(plain.asArray(), 0, "name"), "never");
    EXPECT_EQ(numberIn(plain.asArray(), 0, "count"), 0);
    const Value columns = call("getEventStatsForContext", text("never"), texts({"n", "3"}));
    EXPECT_EQ(shapeOf(columns.asArray()), Shape(1, 1));
    EXPECT_EQ(numberIn(columns.asArray(), 0, "count"), 0);
}

TEST_F(PublishedRecorder, GivesStatsByContextAndByContextEntry) {
    recordThree();
    const Names display{"display", "name", "context", "count", "duration"};
    const Names columns{"name", "method", "n", "count", "duration"};
    const Value all = call("getAllEventStatsByContext");
    EXPECT_EQ(fieldsOf(all.asArray()), display);
    EXPECT_EQ(shapeOf(all.asArray()), Shape(1, 3));
    const Value allEntries = call("getAllEventStatsByContextEntry");
    EXPECT_EQ(fieldsOf(allEntries.asArray()), display);
    EXPECT_EQ(shapeOf(allEntries.asArray()), Shape(1, 3));
    const Value solves = call("getEventStatsByContext", text("solve"));
    EXPECT_EQ(fieldsOf(solves.asArray()), columns);
    EXPECT_EQ(shapeOf(solves.asArray()), Shape(1, 2));
    const Value entries = call("getEventStatsByContextEntry", text("solve"));
    EXPECT_EQ(fieldsOf(entries.asArray()), columns);
    EXPECT_EQ(shapeOf(entries.asArray()), Shape(1, 3));
    const Value cg = call("getEventStatsForContext", text("solve"), texts({"method", "cg"}));
    EXPECT_EQ(shapeOf(cg.asArray()), Shape(1, 1));
    EXPECT_EQ(numberIn(cg.asArray(), 0, "duration"), 0.5);
}

TEST_F(PublishedRecorder, KeepsItsDataOverStopAndStartUntilItIsCleared) {
    recordThree();
    call("start");
    add("later", {}, 5, 6);
    call("stop");
    EXPECT_EQ(shapeOf(call("getAllEvents").asArray()), Shape(1, 4));
    call("clearAllEventData");
    EXPECT_EQ(shapeOf(call("getAllEvents").asArray()), Shape(1, 0));
}

TEST_F(PublishedRecorder, RefusesAnOddContextList) {
    for (const char* name :
         {"getEventPointsForContext", "getEventsForContext", "getEventStatsForContext"}) {
        try {
            call(name, text("solve"), texts({"n"}));
            ADD_FAILURE() << name << " took the list";
        } catch (const std::invalid_argument& error) {
            EXPECT_STREQ(error.what(), "makeContextEntries takes name/value pairs of strings.");
        }
    }
}

TEST_F(PublishedRecorder, ExportsOneCellPerStack) {
    recordThree();
    const Value stacks = call("getAllEventsCollapsedStacks");
    ASSERT_EQ(shapeOf(stacks.asArray()), Shape(1, 2));
    const auto line = [&](std::size_t i) {
        return matrix::hx::hxArrayToStdString(matrix::hx::hxGetCell(stacks.asArray(), i));
    };
    EXPECT_NE(line(0).find("io"), std::string::npos);
    EXPECT_NE(line(1).find("solve"), std::string::npos);
}

/// How many events of the name a trace holds.
std::size_t eventsIn(const Value& trace, const std::string& name) {
    const std::string json = trace.asText();
    const std::string wanted = "\"name\":\"" + name + "\"";
    std::size_t count = 0;
    for (std::size_t at = json.find(wanted); at != std::string::npos;
         at = json.find(wanted, at + 1))
        ++count;
    return count;
}

TEST_F(PublishedRecorder, ExportsTraceEventJson) {
    recordThree();
    const Value trace = call("getAllCompleteEventsTraceEventJson");
    EXPECT_EQ(trace.asText().substr(0, 2), "{\"");
    EXPECT_GE(eventsIn(trace, "io"), 1u);
    const Value utc = call("getAllCompleteEventsTraceEventJsonWithUTC");
    EXPECT_GE(eventsIn(utc, "io"), 1u);
    EXPECT_NE(utc.asText(), trace.asText());
}

TEST_F(PublishedRecorder, FiltersTheTraceBySeconds) {
    call("start");
    add("shorter", {}, 0, 249'999'999);
    add("quarter", {}, 1'000'000'000, 1'250'000'000);
    call("stop");
    const auto filtered = [](double seconds) {
        return call("getAllCompleteEventsTraceEventJsonWithFilter", Value::real(seconds));
    };
    EXPECT_EQ(eventsIn(filtered(0.25), "shorter"), 0u);
    EXPECT_EQ(eventsIn(filtered(0.25), "quarter"), 1u);
    EXPECT_EQ(eventsIn(filtered(1e-10), "shorter"), 1u);
    EXPECT_EQ(eventsIn(filtered(1e300), "shorter"), 1u) << "out of range is the smallest count";
}

}  // namespace
