// The methods of the namespace "counter", called as the host's users do.
#include "zandor/performance/counter.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "vantrace/testing/events.hpp"
#include "vantrace/testing/published.hpp"
#include "zandor/instrument/instrument.hpp"

namespace {

using instrument::controls;
using instrument::Instrument;
using testing::ElementsAre;
using testing::UnorderedElementsAre;
using vantrace_testing::fieldsOf;
using vantrace_testing::numberIn;
using vantrace_testing::Shape;
using vantrace_testing::shapeOf;
using vantrace_testing::text;
using vantrace_testing::textIn;
using vantrace_testing::texts;
using zandor::Value;

template <typename... Values>
Value call(const std::string& name, Values&&... values) {
    return vantrace_testing::call("instrument.counter." + name, std::forward<Values>(values)...);
}

class PublishedCounter : public vantrace_testing::WithCleanControls {
  protected:
    void SetUp() override {
        call("stop");
        call("resetAllEventCounts");
    }
    void TearDown() override { SetUp(); }

    /// Two solves with their contexts, another without, and an instant.
    void countFour() {
        controls.enableAll(true);
        call("start");
        { const instrument::Scope scope(solve, {{"b", 2}, {"a", 1}}); }
        { const instrument::Scope scope(solve, {{"a", 1}}); }
        { const instrument::Scope scope(solve); }
        tick.instant();
        call("stop");
    }

    const Instrument solve{"counter.solve"};
    const Instrument tick{"counter.tick"};
};

TEST_F(PublishedCounter, IsActiveExactlyBetweenStartAndStop) {
    EXPECT_FALSE(call("isActive").asLogical());
    call("start");
    call("start");
    EXPECT_TRUE(call("isActive").asLogical());
    call("stop");
    EXPECT_FALSE(call("isActive").asLogical());
}

TEST_F(PublishedCounter, LeavesTheSwitchesAlone) {
    call("start");
    EXPECT_FALSE(controls.wereAllEnabled());
    solve.instant();
    controls.enable("counter.solve");
    solve.instant();
    call("stop");
    EXPECT_EQ(numberIn(call("getEventCount", text("counter.solve")).asArray(), 0, "count"), 1);
    EXPECT_TRUE(solve.handle()->enabled);
}

TEST_F(PublishedCounter, CountsNothingAsAnArrayWithoutElements) {
    const Value counts = call("getAllEventCounts");
    EXPECT_EQ(shapeOf(counts.asArray()), Shape(1, 0));
    EXPECT_THAT(fieldsOf(counts.asArray()), ElementsAre("name", "count"));
    EXPECT_EQ(shapeOf(call("getEventCountsByContext", text("nobody's")).asArray()), Shape(1, 0));
}

TEST_F(PublishedCounter, GivesOneZeroForAnUnknownName) {
    const Value count = call("getEventCount", text("counter.unknown"));
    EXPECT_EQ(shapeOf(count.asArray()), Shape(1, 1));
    EXPECT_EQ(textIn(count.asArray(), 0, "name"), "counter.unknown");
    EXPECT_EQ(numberIn(count.asArray(), 0, "count"), 0);
}

TEST_F(PublishedCounter, CountsByName) {
    countFour();
    const Value counts = call("getAllEventCounts");
    ASSERT_EQ(shapeOf(counts.asArray()), Shape(1, 2));
    EXPECT_EQ(textIn(counts.asArray(), 0, "name"), "counter.solve");
    EXPECT_EQ(numberIn(counts.asArray(), 0, "count"), 3);
    EXPECT_EQ(textIn(counts.asArray(), 1, "name"), "counter.tick");
    EXPECT_EQ(numberIn(counts.asArray(), 1, "count"), 1);
}

TEST_F(PublishedCounter, CountsByContext) {
    countFour();
    const Value all = call("getAllEventCountsByContext");
    EXPECT_THAT(fieldsOf(all.asArray()), ElementsAre("display", "name", "context", "count"));
    ASSERT_EQ(shapeOf(all.asArray()), Shape(1, 4));
    EXPECT_EQ(textIn(all.asArray(), 0, "display"), "counter.solve");
    EXPECT_EQ(textIn(all.asArray(), 1, "display"), "counter.solve [a=1]");
    EXPECT_EQ(textIn(all.asArray(), 2, "display"), "counter.solve [a=1, b=2]");
    const Value solves = call("getEventCountsByContext", text("counter.solve"));
    EXPECT_THAT(fieldsOf(solves.asArray()), UnorderedElementsAre("name", "a", "b", "count"));
    ASSERT_EQ(shapeOf(solves.asArray()), Shape(1, 3));
    EXPECT_EQ(textIn(solves.asArray(), 1, "a"), "1");
    EXPECT_EQ(textIn(solves.asArray(), 1, "b"), "");
    EXPECT_EQ(textIn(solves.asArray(), 2, "b"), "2");
}

TEST_F(PublishedCounter, CountsByContextEntry) {
    countFour();
    const Value all = call("getAllEventCountsByContextEntry");
    ASSERT_EQ(shapeOf(all.asArray()), Shape(1, 2));
    EXPECT_EQ(textIn(all.asArray(), 0, "display"), "counter.solve [a=1]");
    EXPECT_EQ(numberIn(all.asArray(), 0, "count"), 2);
    EXPECT_EQ(numberIn(all.asArray(), 1, "count"), 1);
    const Value solves = call("getEventCountsByContextEntry", text("counter.solve"));
    EXPECT_EQ(shapeOf(solves.asArray()), Shape(1, 2));
}

TEST_F(PublishedCounter, CountsForAContext) {
    countFour();
    const auto countFor = [](const std::vector<std::string>& context) {
        const Value one = call("getEventCountForContext", text("counter.solve"), texts(context));
        EXPECT_EQ(shapeOf(one.asArray()), Shape(1, 1));
        return numberIn(one.asArray(), 0, "count");
    };
    EXPECT_EQ(countFor({"a", "1"}), 2);
    EXPECT_EQ(countFor({"a", "1", "b", "2"}), 1);
    EXPECT_EQ(countFor({"b", "1"}), 0);
    EXPECT_EQ(countFor({}), 3);
}

TEST_F(PublishedCounter, RefusesAnOddContext) {
    try {
        call("getEventCountForContext", text("counter.solve"), texts({"a", "1", "b"}));
        FAIL() << "no error";
    } catch (const std::invalid_argument& error) {
        EXPECT_STREQ(error.what(), "makeContextEntries takes name/value pairs of strings.");
    }
}

TEST_F(PublishedCounter, KeepsCountsUntilTheyAreReset) {
    countFour();
    countFour();
    EXPECT_EQ(numberIn(call("getEventCount", text("counter.solve")).asArray(), 0, "count"), 6);
    call("resetEventCount", text("counter.solve"));
    EXPECT_EQ(numberIn(call("getEventCount", text("counter.solve")).asArray(), 0, "count"), 0);
    EXPECT_EQ(shapeOf(call("getAllEventCounts").asArray()), Shape(1, 1));
    call("resetAllEventCounts");
    EXPECT_EQ(shapeOf(call("getAllEventCounts").asArray()), Shape(1, 0));
}

}  // namespace
