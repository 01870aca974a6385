#include "zandor/performance/counter.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <barrier>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "zandor/instrument/controls.hpp"
#include "zandor/instrument/instrument.hpp"
#include "zandor/instrument/listeners.hpp"
#include "zandor/instrument/testing/timer_signals.hpp"

namespace instrument {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class Counter : public ::testing::Test {
  protected:
    Counter() {
        controls.enableAll(true);
        listeners.add(counter);
    }
    ~Counter() override {
        listeners.remove(counter);
        controls.disableAll();
    }

    std::int64_t countOf(const Instrument& instrument) const {
        return counter.getEventCount(instrument.name()).count;
    }

    const Instrument work{"counter.work"};
    const Instrument other{"counter.other"};
    InstrumentCounter counter;
};

std::vector<std::string> told(const std::vector<InstrumentCounter::EventCount>& records) {
    std::vector<std::string> lines;
    for (const auto& record : records)
        lines.push_back(combineEventNameWithContext(std::string(record.name), record.context) +
                        ": " + std::to_string(record.count));
    return lines;
}

TEST_F(Counter, CountsStartsAndInstantsAndNoStops) {
    work.instant();
    auto event = work.start();
    work.stop(event);
    { const Scope scope(other, {{"n", 3}}); }
    const EventId id{1u << 30, 1};
    listeners.onEventStartAt(work.handle(), {}, id, 10);
    listeners.onEventStopAt(work.handle(), {}, id, 20);
    listeners.onEventInstantAt(work.handle(), {}, id, 30);
    EXPECT_THAT(told(counter.getAllEventCounts()),
                ElementsAre("counter.other: 1", "counter.work: 4"));
}

TEST_F(Counter, TakesContextsThatReadTheSameAsOne) {
    work.instant({{"a", 1}, {"b", "x"}});
    work.instant({{"b", "x"}, {"a", "1"}});
    listeners.onEventInstant(work.handle(), ContextSet{{"a", "1"}, {"b", "x"}});
    EXPECT_THAT(told(counter.getAllEventCountsByContext()),
                ElementsAre("counter.work [a=1, b=x]: 3"));
    EXPECT_THAT(told(counter.getAllEventCountsByContextEntry()),
                ElementsAre("counter.work [a=1]: 3", "counter.work [b=x]: 3"));
}

TEST_F(Counter, KeepsManyContextsApart) {
    for (int round = 0; round < 2; ++round)
        for (int n = 0; n < 20'000; ++n)
            work.instant({{"n", n}});
    EXPECT_EQ(countOf(work), 40'000);
    const auto records = counter.getEventCountsByContext("counter.work");
    EXPECT_EQ(records.size(), 20'000u);
    for (const auto& record : records)
        ASSERT_EQ(record.count, 2);
}

TEST_F(Counter, TakesContextsOfAnySize) {
    std::vector<std::string> names;
    for (int i = 0; i < 6000; ++i)
        names.push_back("entry" + std::to_string(10'000 + i));
    ContextSet large;
    for (const std::string& name : names)
        large.insert({name, "value"});
    for (int i = 0; i < 3; ++i)
        listeners.onEventInstant(work.handle(), ContextSet(large));
    const auto records = counter.getEventCountsByContext("counter.work");
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].count, 3);
    EXPECT_EQ(records[0].context.size(), names.size());
}

TEST_F(Counter, IsExactUnderEightThreadsWithReadersAndResets) {
    constexpr int threadCount = 8;
    constexpr int eventCount = 20'000;
    std::barrier begin(threadCount + 1);
    std::atomic<int> running{threadCount};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < threadCount; ++thread)
        threads.emplace_back([&, thread] {
            begin.arrive_and_wait();
            for (int i = 0; i < eventCount; ++i) {
                const Scope scope(work, {{"thread", thread}, {"i", i % 100}});
                other.instant();
            }
            --running;
        });
    begin.arrive_and_wait();
    std::int64_t latest = 0;
    while (running > 0) {
        const std::int64_t now = countOf(work);
        EXPECT_GE(now, latest);
        latest = now;
        counter.resetEventCount("counter.other");
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(countOf(work), threadCount * eventCount);
    EXPECT_EQ(counter.getEventCountForContext("counter.work", {{"thread", "3"}}).count, eventCount);
    EXPECT_EQ(counter.getEventCountForContext("counter.work", {{"i", "7"}}).count,
              threadCount * eventCount / 100);
    EXPECT_EQ(counter.lostEvents(), 0u);
    counter.resetEventCount("counter.other");
    EXPECT_EQ(countOf(other), 0);
}

TEST_F(Counter, CountsAnEventOnceWhateverIsResetMeanwhile) {
    constexpr std::int64_t eventCount = 200'000;
    std::atomic<bool> ended{false};
    std::thread producer([&] {
        for (std::int64_t i = 0; i < eventCount; ++i)
            work.instant();
        ended = true;
    });
    while (!ended)
        counter.resetAllEventCounts();
    producer.join();
    EXPECT_LE(countOf(work), eventCount);
    counter.resetAllEventCounts();
    EXPECT_EQ(countOf(work), 0);
    work.instant();
    EXPECT_EQ(countOf(work), 1);
}

TEST_F(Counter, KeepsTheCountsOfThreadsThatEnded) {
    for (int i = 0; i < 2000; ++i)
        std::thread([&] { work.instant(); }).join();
    EXPECT_EQ(countOf(work), 2000);
}

TEST_F(Counter, IsRegisteredAndEmptyInAForkedChild) {
    work.instant();
    const pid_t child = ::fork();
    if (child == 0) {
        const bool empty = counter.getAllEventCounts().empty() && listeners.has(counter);
        work.instant();
        ::_exit(empty && countOf(work) == 1 ? 0 : 1);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(countOf(work), 1);
}

TEST_F(Counter, MayBeReadAndResetInsideACallback) {
    class Asking : public InstrumentCounter {
      public:
        ~Asking() override { listeners.remove(*this); }
        void onInstant(const Opaque* instrument, const EventContext& context,
                       EventId id) noexcept override {
            InstrumentCounter::onInstant(instrument, context, id);
            seen += getEventCount(instrument->name).count;
            resetAllEventCounts();
        }
        std::int64_t seen = 0;
    };
    Asking asking;
    listeners.add(asking);
    for (int i = 0; i < 100; ++i)
        work.instant();
    EXPECT_EQ(asking.seen, 100);
}

std::atomic<std::int64_t> handled{0};
const Instrument* inHandler = nullptr;

TEST_F(Counter, CountsEventsOfSignalHandlers) {
    inHandler = &other;
    handled = 0;
    const std::uint64_t suppressedBefore = listeners.suppressedEvents();
    std::int64_t made = 0;
    {
        const test_support::TimerSignals timer([](int) {
            inHandler->instant();
            ++handled;
        });
        for (std::string text; handled < 200; ++made) {
            text = std::string(static_cast<std::size_t>(made % 5000), 'x');  // allocates
            work.instant({{"n", made % 1000}});
        }
    }
    const std::uint64_t suppressed = listeners.suppressedEvents() - suppressedBefore;
    EXPECT_EQ(countOf(work), made);
    EXPECT_EQ(countOf(other) + static_cast<std::int64_t>(suppressed), handled);
}

TEST_F(Counter, MakesManyCountersAtOnce) {
    std::vector<std::unique_ptr<InstrumentCounter>> counters;
    for (int i = 0; i < 20; ++i)
        listeners.add(*counters.emplace_back(std::make_unique<InstrumentCounter>()));
    work.instant();
    work.instant();
    for (const auto& each : counters)
        EXPECT_THAT(told(each->getAllEventCounts()), ElementsAre("counter.work: 2"));
    EXPECT_THAT(counter.getEventCountsByContext("counter.nobody's"), IsEmpty());
}

}  // namespace
}  // namespace instrument
