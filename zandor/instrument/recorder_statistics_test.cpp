// The recorder's statistics, compared with what was emitted.
#include <gmock/gmock.h>

#include <map>
#include <string>

#include "testing/recorder_support.hpp"
#include "zandor/instrument/source.hpp"

namespace instrument {
namespace {

using test_support::Listening;
using test_support::textOf;
using testing::ElementsAre;
using testing::IsEmpty;

/// Emits events of given durations.
class RecorderStatistics : public test_support::RecorderTest {
  protected:
    void emit(const char* name, std::int64_t duration, const ContextSet& context = {}) {
        const Opaque* handle = controls.getHandle(name);
        const EventId id{source_, ++serial_};
        listeners.onEventStartAt(handle, ContextSet(context), id, 1000);
        listeners.onEventStopAt(handle, ContextSet(context), id, 1000 + duration);
    }
    /// "solve [n=3]: 2 in 30".
    static std::string textOfStats(const InstrumentRecorder::EventStats& stats) {
        return combineEventNameWithContext(std::string(stats.name), stats.context) + ": " +
               std::to_string(stats.count) + " in " + std::to_string(stats.duration);
    }
    static std::vector<std::string> texts(
        const std::vector<InstrumentRecorder::EventStats>& records) {
        std::vector<std::string> result;
        for (const auto& record : records)
            result.push_back(textOfStats(record));
        return result;
    }

    InstrumentRecorder recorder_;
    const Listening listening_{recorder_};
    const std::uint64_t source_ = addExternalSource("", "main", 1, 1);
    std::uint64_t serial_ = 0;
};

TEST_F(RecorderStatistics, CountAndSumCompleteEventsByName) {
    emit("b", 10);
    emit("a", 5);
    emit("b", -3);
    const Instrument open{"open"};
    const auto event = open.start();
    open.instant();
    EXPECT_THAT(texts(recorder_.getAllEventStats()), ElementsAre("a: 1 in 5", "b: 2 in 7"));
    EXPECT_EQ(textOfStats(recorder_.getEventStats("b")), "b: 2 in 7");
    EXPECT_EQ(textOfStats(recorder_.getEventStats("open")), "open: 0 in 0");
    open.stop(event);
    EXPECT_EQ(recorder_.getEventStats("open").count, 1);
}

TEST_F(RecorderStatistics, AreZeroForAnUnknownName) {
    std::string name = "nobody knows this name";
    const auto stats = recorder_.getEventStats(name);
    const auto forContext = recorder_.getEventStatsForContext(name, {{"n", "1"}});
    name.assign(name.size(), '?');  // what was given is kept
    EXPECT_EQ(textOfStats(stats), "nobody knows this name: 0 in 0");
    EXPECT_EQ(textOfStats(forContext), "nobody knows this name [n=1]: 0 in 0");
    EXPECT_THAT(recorder_.getEventStatsByContext("nobody knows this name"), IsEmpty());
    EXPECT_THAT(recorder_.getEventStatsByContextEntry("nobody knows this name"), IsEmpty());
}

TEST_F(RecorderStatistics, GroupByNameAndWholeContext) {
    emit("solve", 1, {{"n", "2"}});
    emit("solve", 2, {{"m", "1"}, {"n", "1"}});
    emit("solve", 4);
    emit("solve", 8, {{"n", "2"}});
    emit("read", 16, {{"n", "2"}});
    EXPECT_THAT(texts(recorder_.getAllEventStatsByContext()),
                ElementsAre("read [n=2]: 1 in 16", "solve: 1 in 4", "solve [m=1, n=1]: 1 in 2",
                            "solve [n=2]: 2 in 9"));
    EXPECT_THAT(texts(recorder_.getEventStatsByContext("read")),
                ElementsAre("read [n=2]: 1 in 16"));
}

TEST_F(RecorderStatistics, GroupByNameAndEachEntry) {
    emit("solve", 1, {{"a", "1"}, {"b", "2"}, {"c", "3"}});
    emit("solve", 2, {{"a", "1"}, {"b", "3"}});
    emit("solve", 4);
    emit("read", 8, {{"a", "1"}});
    EXPECT_THAT(texts(recorder_.getAllEventStatsByContextEntry()),
                ElementsAre("read [a=1]: 1 in 8", "solve [a=1]: 2 in 3", "solve [b=2]: 1 in 1",
                            "solve [b=3]: 1 in 2", "solve [c=3]: 1 in 1"));
    EXPECT_THAT(texts(recorder_.getEventStatsByContextEntry("read")),
                ElementsAre("read [a=1]: 1 in 8"));
    EXPECT_THAT(recorder_.getEventStatsByContextEntry("open"), IsEmpty());
}

TEST_F(RecorderStatistics, TakeNumbersAndTextsThatReadTheSameForTheSame) {
    const Instrument solve{"solve"};
    solve.stop(solve.start({{"n", 3}}));
    solve.stop(solve.start({{"n", 3u}}));
    solve.stop(solve.start({{"n", "3"}}));
    const auto groups = recorder_.getAllEventStatsByContext();
    ASSERT_THAT(groups, testing::SizeIs(1));
    EXPECT_EQ(groups[0].count, 3);
    EXPECT_EQ(textOf(groups[0].context), "n=3");
    EXPECT_EQ(recorder_.getEventStatsForContext("solve", {{"n", "3"}}).count, 3);
}

TEST_F(RecorderStatistics, OfAContextCountWhatHoldsEveryEntry) {
    emit("solve", 1, {{"a", "1"}, {"b", "2"}});
    emit("solve", 2, {{"a", "1"}, {"b", "3"}});
    emit("solve", 4, {{"a", "1"}});
    emit("read", 8, {{"a", "1"}});
    EXPECT_EQ(textOfStats(recorder_.getEventStatsForContext("solve", {{"a", "1"}})),
              "solve [a=1]: 3 in 7");
    EXPECT_EQ(textOfStats(recorder_.getEventStatsForContext("solve", {{"b", "3"}, {"a", "1"}})),
              "solve [a=1, b=3]: 1 in 2");
    EXPECT_EQ(textOfStats(recorder_.getEventStatsForContext("solve", {})), "solve: 3 in 7");
    EXPECT_EQ(recorder_.getEventStatsForContext("solve", {{"a", "2"}}).count, 0);
}

TEST_F(RecorderStatistics, AgreeWithTheEventsThemselves) {
    const Instrument instruments[]{Instrument{"x"}, Instrument{"y"}, Instrument{"z"}};
    test_support::onThreads(4, [&](int thread) {
        for (int i = 0; i < 5000; ++i) {
            const Scope outer{instruments[i % 3], {{"thread", thread}, {"i", i % 7}}};
            const Scope inner{instruments[(i + 1) % 3]};
        }
    });
    std::map<std::string, std::pair<std::int64_t, std::int64_t>> byName;
    std::map<std::string, std::pair<std::int64_t, std::int64_t>> byContext;
    for (const auto& event : recorder_.getAllEvents()) {
        for (auto* sums :
             {&byName[std::string(event.name)],
              &byContext[combineEventNameWithContext(std::string(event.name), event.context)]}) {
            ++sums->first;
            sums->second += event.duration();
        }
    }
    const auto stats = recorder_.getAllEventStats();
    EXPECT_EQ(stats.size(), byName.size());
    for (const auto& record : stats)
        EXPECT_EQ(std::pair(record.count, record.duration), byName[std::string(record.name)]);
    const auto groups = recorder_.getAllEventStatsByContext();
    EXPECT_EQ(groups.size(), byContext.size());
    for (const auto& record : groups)
        EXPECT_EQ(std::pair(record.count, record.duration),
                  byContext[combineEventNameWithContext(std::string(record.name), record.context)]);
}

}  // namespace
}  // namespace instrument
