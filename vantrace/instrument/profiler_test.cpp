// The methods of the namespace "profiler", called as the host's users do.
#include "zandor/performance/profiler.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "vantrace/testing/console.hpp"
#include "vantrace/testing/events.hpp"
#include "vantrace/testing/published.hpp"
#include "zandor/instrument/instrument.hpp"
#include "zandor/instrument/source.hpp"

namespace {

using instrument::controls;
using instrument::EventId;
using instrument::Instrument;
using instrument::listeners;
using testing::ElementsAre;
using vantrace_testing::fieldsOf;
using vantrace_testing::numberIn;
using vantrace_testing::Shape;
using vantrace_testing::shapeOf;
using vantrace_testing::textIn;
using zandor::Value;

Value call(const std::string& name) {
    return vantrace_testing::call("instrument.profiler." + name);
}

class PublishedProfiler : public vantrace_testing::WithCleanControls {
  protected:
    void SetUp() override { call("stop"); }
    void TearDown() override { call("stop"); }

    /// An outer call of 3 s with an inner one of 1 s, 10 s after another instrument's.
    void callThree() {
        add("profiler.first", 5'000'000'000, 5'500'000'000);
        const EventId outer = begin("profiler.outer", 15'000'000'000);
        add("profiler.inner", 16'000'000'000, 17'000'000'000);
        end("profiler.outer", outer, 18'000'000'000);
    }

  private:
    EventId begin(const char* name, std::int64_t time) {
        const EventId id{source_, ++serial_};
        listeners.onEventStartAt(controls.getHandle(name), {}, id, time);
        return id;
    }
    static void end(const char* name, EventId id, std::int64_t time) {
        listeners.onEventStopAt(controls.getHandle(name), {}, id, time);
    }
    void add(const char* name, std::int64_t start, std::int64_t stop) {
        end(name, begin(name, start), stop);
    }

    const std::uint64_t source_ = instrument::addExternalSource("client", "worker", 1, 1);
    std::uint64_t serial_ = 0;
};

TEST_F(PublishedProfiler, IsActiveFromStartToEitherStop) {
    for (const char* stop : {"stop", "stopAndPrint"}) {
        EXPECT_FALSE(call("isActive").asLogical());
        call("start");
        EXPECT_TRUE(call("isActive").asLogical());
        EXPECT_TRUE(controls.wereAllEnabled());
        const vantrace_testing::KeptConsole console;
        call(stop);
        EXPECT_FALSE(call("isActive").asLogical());
        EXPECT_FALSE(controls.wereAllEnabled());
    }
}

TEST_F(PublishedProfiler, GivesBackTheSwitchesAsStartFoundThem) {
    controls.enableAll(true);
    call("start");
    call("stop");
    EXPECT_TRUE(controls.wereAllEnabled());
    call("stop");  // without a start: off
    EXPECT_FALSE(controls.wereAllEnabled());
    call("start");
    call("start");
    call("stop");  // knows only what the second start found
    EXPECT_TRUE(controls.wereAllEnabled());
}

TEST_F(PublishedProfiler, GivesAnArrayWithoutElementsForNoCalls) {
    call("start");
    const Value profile = call("stop");
    EXPECT_EQ(shapeOf(profile.asArray()), Shape(1, 0));
    EXPECT_THAT(fieldsOf(profile.asArray()),
                ElementsAre("Name", "CallCount", "StartTime", "TotalTime", "SelfTime"));
}

TEST_F(PublishedProfiler, GivesSecondsInOrderOfFirstStartAndForgets) {
    call("start");
    callThree();
    const Value profile = call("stop");
    const hxArray* rows = profile.asArray();
    ASSERT_EQ(shapeOf(rows), Shape(1, 3));
    EXPECT_EQ(textIn(rows, 0, "Name"), "profiler.first");
    EXPECT_EQ(textIn(rows, 1, "Name"), "profiler.outer");
    EXPECT_EQ(textIn(rows, 2, "Name"), "profiler.inner");
    EXPECT_EQ(numberIn(rows, 1, "CallCount"), 1.0);
    EXPECT_EQ(numberIn(rows, 0, "StartTime"), 0.0);
    EXPECT_EQ(numberIn(rows, 1, "StartTime"), 10.0);
    EXPECT_EQ(numberIn(rows, 1, "TotalTime"), 3.0);
    EXPECT_EQ(numberIn(rows, 1, "SelfTime"), 2.0);
    EXPECT_EQ(numberIn(rows, 2, "SelfTime"), 1.0);
    EXPECT_EQ(shapeOf(call("stop").asArray()), Shape(1, 0));
}

TEST_F(PublishedProfiler, PrintsATableAndForgets) {
    call("start");
    callThree();
    const vantrace_testing::KeptConsole console;
    call("stopAndPrint");
    EXPECT_EQ(console.take(),
              "event                                      calls      total       self   self %\n"
              "profiler.outer                                 1    3.000 s    2.000 s     57.1\n"
              "profiler.inner                                 1    1.000 s    1.000 s     28.6\n"
              "profiler.first                                 1   500.0 ms   500.0 ms     14.3\n");
    EXPECT_EQ(shapeOf(call("stop").asArray()), Shape(1, 0));
}

}  // namespace
