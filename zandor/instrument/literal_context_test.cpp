#include "zandor/instrument/literal_context.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>

#include "zandor/instrument/recorder.hpp"
#include "zandor/instrument/testing/event_log.hpp"

namespace instrument {
namespace {

using test_support::EventLog;
using test_support::Listening;
using test_support::textOf;
using ::testing::SizeIs;

constinit const LiteralContext direct{{"method", "lu"}, {"kind", "dense"}};
constinit const LiteralContext iterative{{"method", "cg"}};

class LiteralContextTest : public test_support::RecorderTest {
  protected:
    const Instrument solve{"literal.solve"};
};

TEST_F(LiteralContextTest, IsHeardAtStartsStopsAndInstants) {
    EventLog log;
    listeners.add(log);
    {
        const Scope scope{solve, direct};
        solve.instant(iterative);
    }
    EXPECT_EQ(log.story(),
              "start literal.solve [kind=dense method=lu], instant literal.solve [method=cg], "
              "stop literal.solve [kind=dense method=lu]");
    for (const auto& event : log.events())
        EXPECT_EQ(event.sourceId, event.id.sourceId);
}

TEST_F(LiteralContextTest, IsRecordedAsTheSameEntriesInAList) {
    InstrumentRecorder recorder;
    const Listening listening(recorder);
    for (int i = 0; i < 3; ++i)
        const Scope scope{solve, direct};
    { const Scope scope{solve, {{"method", "lu"}, {"kind", "dense"}}}; }
    solve.instant(iterative);
    const auto stats = recorder.getEventStatsByContext("literal.solve");
    ASSERT_THAT(stats, SizeIs(1));
    EXPECT_EQ(stats[0].count, 4);
    EXPECT_EQ(textOf(stats[0].context), "kind=dense method=lu");
    const auto points = recorder.getEventPoints("literal.solve");
    ASSERT_THAT(points, SizeIs(9));
    for (const auto& point : points)
        EXPECT_EQ(textOf(point.context),
                  point.type == EventPointType::instant ? "method=cg" : "kind=dense method=lu");
}

TEST_F(LiteralContextTest, HasTheSameWordsOnThreadsThatUseItFirstTogether) {
    static constinit const LiteralContext shared{
        {"literal.first", "a"}, {"literal.second", "b"}, {"literal.third", "c"}, {"n", "4"}};
    InstrumentRecorder recorder;
    const Listening listening(recorder);
    constexpr int threads = 8;
    test_support::onThreads(threads, [&](int) { const Scope scope{solve, shared}; });
    const auto stats = recorder.getEventStatsByContext("literal.solve");
    ASSERT_THAT(stats, SizeIs(1));
    EXPECT_EQ(stats[0].count, threads);
}

TEST_F(LiteralContextTest, IsAskedForByRules) {
    InstrumentRecorder recorder;
    const Listening listening(recorder);
    controls.disableAll();
    controls.enable("literal.solve", {"method", "lu"});
    {
        const Scope on{solve, direct};
        const Scope off{solve, iterative};
        solve.instant(iterative);
    }
    EXPECT_THAT(recorder.getEventPoints("literal.solve"), SizeIs(2));
    controls.disableAll();
}

TEST_F(LiteralContextTest, OfAnOpenScopeReachesAListenerThatComesLater) {
    EventLog log;
    InstrumentRecorder recorder;
    const Listening listening(recorder);
    {
        const Scope scope{solve, direct};
        listeners.add(log);
    }
    EXPECT_EQ(log.story(), "stop literal.solve [kind=dense method=lu]");
    EXPECT_EQ(recorder.getEventStats("literal.solve").count, 1);
}

TEST_F(LiteralContextTest, IsNoEventWhereNobodyListensOrInsideAListener) {
    { const Scope scope{solve, direct}; }
    const std::uint64_t suppressed = listeners.suppressedEvents();
    {
        test_support::HandlerListener inside([&](auto&&...) {
            const Scope scope{solve, direct};
            solve.instant(direct);
        });
        const Listening listening(inside);
        solve.instant();
    }
    EXPECT_EQ(listeners.suppressedEvents(), suppressed + 2);
}

TEST_F(LiteralContextTest, AScopeThatAParentOpenedEndsInTheParentAlone) {
    EventLog log;
    listeners.add(log);
    int status = -1;
    {
        const Scope scope{solve, direct};
        const pid_t child = ::fork();
        if (child == 0) {
            log.clear();
            scope.~Scope();
            { const Scope own{solve, iterative}; }
            const bool isRight =
                log.story() == "start literal.solve [method=cg], stop literal.solve [method=cg]";
            ::_exit(isRight ? 0 : 1);
        }
        ASSERT_EQ(::waitpid(child, &status, 0), child);
    }
    EXPECT_EQ(status, 0);
    EXPECT_THAT(log.events(), SizeIs(2));
}

}  // namespace
}  // namespace instrument
