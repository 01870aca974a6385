#include "zandor/instrument/collapsed_stacks.hpp"

#include <gmock/gmock.h>

#include <map>
#include <random>
#include <set>

#include "zandor/instrument/testing/recording_builder.hpp"

namespace {

using namespace instrument;
using detail::collapsedStacks;
using test_support::RecordingBuilder;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(CollapsedStacks, AreNoneForNoEvents) {
    RecordingBuilder builder;
    builder.source("main");
    builder.point("tick", 0, 5);
    EXPECT_THAT(collapsedStacks(builder.build()), IsEmpty());
}

TEST(CollapsedStacks, GiveEachStackItsSelfTimeUnderTheThreadsName) {
    RecordingBuilder builder;
    builder.source("main");
    builder.source("worker");
    builder.event("solve", 0, 0, 100).event("step", 0, 10, 40).event("step", 0, 40, 60);
    builder.event("solve", 1, 5, 15);
    EXPECT_THAT(collapsedStacks(builder.build()),
                ElementsAre("main;solve 50", "main;solve;step 50", "worker;solve 10"));
}

TEST(CollapsedStacks, FollowRecursion) {
    RecordingBuilder builder;
    builder.source("main");
    builder.event("f", 0, 0, 100).event("f", 0, 10, 40).event("f", 0, 20, 30);
    EXPECT_THAT(collapsedStacks(builder.build()),
                ElementsAre("main;f 70", "main;f;f 20", "main;f;f;f 10"));
}

TEST(CollapsedStacks, HaveNoLineForWhatItsCalleesFill) {
    RecordingBuilder builder;
    builder.source("main");
    builder.event("outer", 0, 0, 10).event("inner", 0, 0, 10);
    EXPECT_THAT(collapsedStacks(builder.build()), ElementsAre("main;outer;inner 10"));
}

TEST(CollapsedStacks, GiveAtLeastOneNanosecond) {
    RecordingBuilder builder;
    builder.source("main");
    builder.event("empty", 0, 5, 5);
    EXPECT_THAT(collapsedStacks(builder.build()), ElementsAre("main;empty 1"));
}

TEST(CollapsedStacks, PutOverlapInsideWhatItStartedInAndCountItOnce) {
    RecordingBuilder builder;
    builder.source("main");
    builder.event("first", 0, 0, 100).event("second", 0, 50, 150).event("third", 0, 120, 130);
    EXPECT_THAT(collapsedStacks(builder.build()),
                ElementsAre("main;first 50", "main;first;second 90", "main;first;second;third 10"));
}

TEST(CollapsedStacks, CountAStopOnAnotherThreadWhereItStarted) {
    RecordingBuilder builder;
    builder.source("main");
    builder.source("worker");
    builder.event("job", 0, 0, 100).stoppedBy(1).event("other", 1, 20, 30);
    EXPECT_THAT(collapsedStacks(builder.build()), ElementsAre("main;job 100", "worker;other 10"));
}

TEST(CollapsedStacks, LetOpenEventsLastToTheEndAndLeaveReversedOnesOut) {
    RecordingBuilder builder;
    builder.source("main");
    builder.event("open", 0, 10, std::nullopt).event("reversed", 0, 50, 20).event("a", 0, 60, 90);
    EXPECT_THAT(collapsedStacks(builder.build()), ElementsAre("main;open 50", "main;open;a 30"));
}

TEST(CollapsedStacks, ReplaceInNamesWhatPartsFramesAndLines) {
    RecordingBuilder builder;
    builder.source("a;b");
    builder.event("", 0, 0, 10).event("x;\t\n\xe2\x80\xa8\xff", 0, 2, 5);
    EXPECT_THAT(collapsedStacks(builder.build()),
                ElementsAre("a,b;(unnamed) 7", "a,b;(unnamed);x,   \xef\xbf\xbd 3"));
}

TEST(CollapsedStacks, AddUpWhatLooksAlike) {
    RecordingBuilder builder;
    builder.source("main");
    builder.source("main");
    builder.event("a;b", 0, 0, 10).event("a,b", 0, 10, 15).event("a,b", 1, 0, 100);
    EXPECT_THAT(collapsedStacks(builder.build()), ElementsAre("main;a,b 115"));
}

TEST(CollapsedStacks, StandInTheOrderOfTheirBytes) {
    RecordingBuilder builder;
    builder.source("main");
    builder.event("a b", 0, 0, 5).event("a", 0, 10, 11).event("\xc3\xa4", 0, 20, 21);
    builder.event("B", 0, 30, 31);
    EXPECT_THAT(collapsedStacks(builder.build()),
                ElementsAre("main;B 1", "main;a 1", "main;a b 5", "main;\xc3\xa4 1"));
}

TEST(CollapsedStacks, TakeTimesOfAnySize) {
    RecordingBuilder builder;
    builder.source("main");
    builder.event("a", 0, 0, 1).event("b", 0, 1, 2).event("a", 0, 3, std::nullopt);
    auto& recording = builder.recording();
    recording.events[0].start = recording.events[1].start = INT64_MIN;
    recording.events[0].stop = recording.lastTime = INT64_MAX;
    EXPECT_THAT(
        collapsedStacks(builder.build()),
        ElementsAre("main;a 1", "main;a;a 9223371955854775804", "main;a;b 9223372036854775807"));
}

TEST(CollapsedStacks, OfAThreadAddUpToTheTimeThatItsEventsCover) {
    std::mt19937 random(1);
    const auto upTo = [&](int most) { return std::uniform_int_distribution<int>(0, most)(random); };
    for (int round = 0; round < 500; ++round) {
        RecordingBuilder builder;
        builder.source("main");
        std::set<std::int64_t> covered;
        for (int i = upTo(12); i >= 0; --i) {
            const int start = 10 * upTo(20), stop = start + 10 * (1 + upTo(8));
            builder.event(std::string(1, static_cast<char>('a' + upTo(2))), 0, start, stop);
            for (int time = start; time < stop; ++time)
                covered.insert(time);
        }
        std::int64_t sum = 0;
        for (const std::string& line : collapsedStacks(builder.build()))
            sum += std::stoll(line.substr(line.rfind(' ') + 1));
        ASSERT_EQ(sum, static_cast<std::int64_t>(covered.size())) << "round " << round;
    }
}

}  // namespace
