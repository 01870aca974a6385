// Records of one word, which plain events take where they can: they tell what longer ones do,
// wherever they are read and whatever gives way around them.
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "testing/recorder_support.hpp"
#include "testing/temporary_folder.hpp"
#include "zandor/instrument/clock.hpp"
#include "zandor/instrument/exports.hpp"
#include "zandor/instrument/plain_events.hpp"
#include "zandor/instrument/trace_file.hpp"

namespace instrument {
namespace {

using test_support::Listening;
using testing::SizeIs;

constexpr std::size_t mebi = 1024 * 1024;

class ShortRecords : public test_support::RecorderTest {
  protected:
    void makePairs(std::uint64_t count) const {
        for (std::uint64_t i = 0; i < count; ++i)
            stopPlain(inner_, startPlain(inner_));
    }
    void makeNested(std::uint64_t count) const {
        const EventId id = startPlain(outer_);
        makePairs(count);
        stopPlain(outer_, id);
    }
    /// By name: how many, and nanoseconds in all.
    static std::vector<std::tuple<std::string, std::int64_t, std::int64_t>> sums(
        const std::vector<EventSummary>& summaries) {
        std::vector<std::tuple<std::string, std::int64_t, std::int64_t>> found;
        for (const EventSummary& summary : summaries)
            found.emplace_back(summary.name, summary.count, summary.total);
        std::ranges::sort(found);
        return found;
    }
    void makePairsWithContext(std::uint64_t count) const {
        for (std::uint64_t i = 0; i < count; ++i)
            const Scope scope{given_, {{"n", i % 7}, {"method", "cg"}}};
    }
    /// Of each event with context: the same at its start and its stop.
    void expectStopsToHaveTheContextsOfTheirStarts(const InstrumentRecorder& recorder) const {
        std::map<std::uint64_t, std::string> contexts;
        for (const auto& point : recorder.getEventPoints(given_.name())) {
            const std::string context = test_support::textOf(point.context);
            EXPECT_EQ(contexts.try_emplace(point.serialId(), context).first->second, context);
            EXPECT_TRUE(context.starts_with("method=cg n=")) << context;
        }
    }
    void expectFileToTellTheSame(const InstrumentRecorder& recorder) const {
        const test_support::TemporaryFolder folder;
        saveTraceFile(recorder, folder / "same.vtrace");
        const TraceFile file(folder / "same.vtrace");
        EXPECT_EQ(file.damagedBlocks(), 0u);
        EXPECT_EQ(sums(file.summarize()), sums(instrument::summarize(recorder)));
    }
    /// Outer events follow each other on a thread, and each was longer than its inner ones.
    static void expectOuterInTurn(const std::vector<InstrumentRecorder::Event>& events) {
        std::int64_t latestStop = 0;
        for (const auto& event : events) {
            if (event.name != "outer")
                continue;
            EXPECT_GE(event.startTimePoint, latestStop);
            EXPECT_GT(event.stopTimePoint, event.startTimePoint);
            latestStop = event.stopTimePoint;
        }
    }

    const Opaque* const outer_ = Instrument("outer").handle();
    const Opaque* const inner_ = Instrument("inner").handle();
    const Instrument given_{"given"};
};

TEST_F(ShortRecords, TakeEightBytesAnEdge) {
    InstrumentRecorder recorder;
    const Listening listening(recorder);
    constexpr std::size_t pairs = 500'000;
    makePairs(pairs);
    EXPECT_LT(recorder.bytesInUse(), pairs * 16 + 5 * mebi);
    EXPECT_EQ(recorder.getEventStats("inner").count, static_cast<std::int64_t>(pairs));
}

TEST_F(ShortRecords, AreTheStopsOfEventsWithContextToo) {
    InstrumentRecorder recorder;
    const Listening listening(recorder);
    constexpr std::size_t pairs = 200'000;
    makePairsWithContext(pairs);  // three words of context, and two of the start
    EXPECT_LT(recorder.bytesInUse(), pairs * 48 + 5 * mebi);
    EXPECT_EQ(recorder.getEventStats("given").count, static_cast<std::int64_t>(pairs));
    EXPECT_THAT(recorder.getEventStatsByContext("given"), SizeIs(7));
    expectStopsToHaveTheContextsOfTheirStarts(recorder);
    expectFileToTellTheSame(recorder);
}

TEST_F(ShortRecords, GiveASecondStopTheContextOfTheStart) {
    InstrumentRecorder recorder;
    const Listening listening(recorder);
    makePairs(1);
    const OpenEvent event = given_.start({{"n", 1}, {"method", "cg"}});
    for (int i = 0; i < 3; ++i)
        given_.stop(event);
    EXPECT_THAT(recorder.getEventPoints("given"), SizeIs(4));
    expectStopsToHaveTheContextsOfTheirStarts(recorder);
}

TEST_F(ShortRecords, TellEventsThatHoldManyOthers) {
    InstrumentRecorder recorder;
    const Listening listening(recorder);
    for (const std::uint64_t count : {0, 1, 1022, 1023, 1024, 5000})
        makeNested(count);
    const std::int64_t end = clock::now();
    const auto events = recorder.getAllEvents();
    ASSERT_EQ(events.size(), 6u + 1 + 1022 + 1023 + 1024 + 5000);
    expectOuterInTurn(events);
    const auto* latest = &events.front();
    for (const auto& event : events) {
        latest = event.name == "outer" ? &event : latest;
        EXPECT_GE(event.startTimePoint, latest->startTimePoint);
        EXPECT_LE(event.stopTimePoint, latest->stopTimePoint);
    }
    EXPECT_LE(latest->stopTimePoint, end);
    expectFileToTellTheSame(recorder);
}

TEST_F(ShortRecords, GiveWayToLongerOnesForInstrumentsOfHighNumbers) {
    const Opaque* last = nullptr;
    for (int number = 0; !last || last->id < (1 << 16); ++number)
        last = Instrument("numbered " + std::to_string(number)).handle();
    InstrumentRecorder recorder;
    const Listening listening(recorder);
    makePairs(10);
    for (int i = 0; i < 10; ++i) {
        const EventId id = startPlain(last);
        makePairs(3);
        instantPlain(last);
        stopPlain(last, id);
    }
    EXPECT_EQ(recorder.getEventStats(last->name).count, 10);
    EXPECT_EQ(recorder.getEventStats("inner").count, 40);
    expectFileToTellTheSame(recorder);
}

TEST_F(ShortRecords, StandBesideRecordsOfOtherEvents) {
    InstrumentRecorder recorder;
    const Listening listening(recorder);
    const Instrument other("other");
    for (int i = 0; i < 100; ++i) {
        makeNested(5);
        const Scope scope{other, {{"number", i}}};
        makePairs(2);
    }
    EXPECT_EQ(recorder.getEventStats("inner").count, 700);
    EXPECT_EQ(recorder.getEventStats("outer").count, 100);
    EXPECT_EQ(recorder.getEventStats("other").count, 100);
    expectOuterInTurn(recorder.getAllEvents());
    expectFileToTellTheSame(recorder);
}

TEST_F(ShortRecords, AreOfTheThreadThatWroteThem) {
    InstrumentRecorder recorder;
    const Listening listening(recorder);
    for (int round = 0; round < 5; ++round)  // one after the other, with the memory of the last
        test_support::onThreads(2, [&](int) { makeNested(100); });
    const auto events = recorder.getAllEvents();
    EXPECT_THAT(events, SizeIs(10 * 101));
    std::map<std::uint64_t, std::vector<InstrumentRecorder::Event>> threads;
    for (const auto& event : events)
        threads[event.id.sourceId].push_back(event);
    EXPECT_THAT(threads, SizeIs(10));
    for (const auto& [source, own] : threads) {
        EXPECT_THAT(own, SizeIs(101));
        for (const auto& event : own)
            EXPECT_LE(event.stopTimePoint, own.front().stopTimePoint);
    }
}

TEST_F(ShortRecords, StayWhereTheShortestAroundThemGiveWay) {
    InstrumentRecorder recorder({.maxBytes = mebi, .keep = Keep::longest});
    const Listening listening(recorder);
    constexpr std::uint64_t outer = 100;
    constexpr std::uint64_t inner = 20'000;
    for (std::uint64_t i = 0; i < outer; ++i)
        makeNested(inner);
    const auto events = recorder.getAllEvents();
    EXPECT_EQ(events.size() + recorder.drops().total(), outer * (inner + 1));
    EXPECT_GT(recorder.drops().shortest, 0u);
    EXPECT_EQ(recorder.getEventStats("outer").count, static_cast<std::int64_t>(outer));
    expectOuterInTurn(events);
    expectFileToTellTheSame(recorder);
}

TEST_F(ShortRecords, KeepContextsWhereTheShortestAroundThemGiveWay) {
    InstrumentRecorder recorder({.maxBytes = mebi, .keep = Keep::longest});
    const Listening listening(recorder);
    constexpr std::uint64_t outer = 50;
    constexpr std::uint64_t inner = 10'000;
    for (std::uint64_t i = 0; i < outer; ++i) {
        const Scope scope{given_, {{"n", i}, {"method", "outer"}}};
        makePairs(inner);
        makePairsWithContext(10);
    }
    const auto points = recorder.getEventPoints("given");
    std::map<std::uint64_t, std::string> contexts;
    for (const auto& point : points) {
        const std::string context = test_support::textOf(point.context);
        EXPECT_EQ(contexts.try_emplace(point.serialId(), context).first->second, context);
    }
    EXPECT_GE(contexts.size(), outer);
    EXPECT_GT(recorder.drops().shortest, 0u);
    expectFileToTellTheSame(recorder);
}

TEST_F(ShortRecords, StayAfterGapsOfAnyWidth) {
    InstrumentRecorder recorder({.maxBytes = 256 << 10, .keep = Keep::longest});
    const Listening listening(recorder);
    std::uint64_t all = 0;
    std::uint64_t outer = 0;
    for (std::uint64_t inner = 1; inner < 700'000; inner *= 3)
        for (int i = 0; i < 4; ++i, ++outer, all += inner + 1)
            makeNested(inner);
    const auto events = recorder.getAllEvents();
    EXPECT_EQ(events.size() + recorder.drops().total(), all);
    std::uint64_t latest = 0;
    for (const auto& event : events) {
        EXPECT_GT(event.id.serialId, latest);
        latest = event.id.serialId;
    }
    EXPECT_GE(recorder.getEventStats("outer").count, 8);  // of the widest at least
    expectOuterInTurn(events);
    expectFileToTellTheSame(recorder);
}

TEST_F(ShortRecords, AreInTheFileOfAProcessThatWasKilled) {
    for (const Keep keep : {Keep::first, Keep::longest}) {
        const test_support::TemporaryFolder folder;
        const pid_t child = fork();
        if (child == 0) {
            InstrumentRecorder recorder({.maxBytes = mebi, .keep = keep, .folder = folder.path()});
            const Listening listening(recorder);
            makeNested(20'000);
            makePairsWithContext(1);
            const EventId open = startPlain(outer_);
            makePairs(10);
            std::raise(SIGKILL);
            stopPlain(outer_, open);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFSIGNALED(status));
        const test_support::TemporaryFolder results;
        finishRunFolder(folder.path(), results / "killed.vtrace");
        const TraceFile trace(results / "killed.vtrace");
        EXPECT_EQ(trace.damagedBlocks(), 0u);
        EXPECT_EQ(trace.eventCount() + trace.drops().total(), 20'013u);
        std::int64_t ended = 0;
        for (const EventSummary& summary : trace.summarize())
            ended += summary.name == "outer" ? summary.count : 0;
        EXPECT_GE(ended, 1);
    }
}

}  // namespace
}  // namespace instrument
