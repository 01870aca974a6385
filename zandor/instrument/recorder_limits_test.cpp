// What a recorder does at its bound on memory, and without memory.
#include <gmock/gmock.h>
#include <unistd.h>

#include <atomic>
#include <set>
#include <string>

#include "recorder_memory.hpp"
#include "testing/event_log.hpp"
#include "testing/recorder_support.hpp"
#include "zandor/instrument/source.hpp"
#include "zandor/runtime/console.hpp"

namespace instrument {
namespace {

using test_support::CountingListener;
using test_support::Listening;
using test_support::onThreads;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr std::size_t kibi = 1024;
constexpr std::size_t mebi = 1024 * kibi;

class RecorderLimitsTest : public test_support::RecorderTest {
  protected:
    /// An event of a given length that began at `start`.
    void emitTimed(std::uint64_t source, std::uint64_t serial, std::int64_t start,
                   std::int64_t duration) const {
        listeners.onEventStartAt(work_.handle(), {}, {source, serial}, start);
        listeners.onEventStopAt(work_.handle(), {}, {source, serial}, start + duration);
    }
    static std::uint64_t countPoints(const InstrumentRecorder& recorder, EventPointType type) {
        std::uint64_t count = 0;
        for (const auto& point : recorder.getAllEventPoints())
            count += point.type == type;
        return count;
    }
    /// Starts and instants that a recorder has; with what it dropped all that were emitted.
    static std::uint64_t accounted(const InstrumentRecorder& recorder) {
        return countPoints(recorder, EventPointType::start) +
               countPoints(recorder, EventPointType::instant) + recorder.drops().total();
    }
    static std::uint64_t complete(const InstrumentRecorder& recorder) {
        return static_cast<std::uint64_t>(recorder.getEventStats("work").count);
    }
    static void expectWithinBound(const InstrumentRecorder& recorder) {
        EXPECT_LE(recorder.bytesInUse(), recorder.maxBytes() + recorder.maxBytes() / 20);
    }
    /// No stop is shown whose start is not.
    static void expectNoStrayStops(const InstrumentRecorder& recorder) {
        std::set<std::pair<std::uint64_t, std::uint64_t>> begun;
        const auto points = recorder.getAllEventPoints();
        for (const auto& point : points)
            if (point.type == EventPointType::start)
                begun.emplace(point.id.sourceId, point.id.serialId);
        std::size_t strays = 0;
        for (const auto& point : points)
            strays += point.type == EventPointType::stop &&
                      !begun.contains({point.id.sourceId, point.id.serialId});
        EXPECT_EQ(strays, 0u);
    }

    const Instrument work_{"work"};
    const Instrument whole_{"whole"};
};

TEST_F(RecorderLimitsTest, AreAQuarterOfTheMemoryByDefault) {
    const InstrumentRecorder recorder;
    const auto pages = static_cast<std::size_t>(sysconf(_SC_PHYS_PAGES));
    EXPECT_GT(recorder.maxBytes(), 0u);
    EXPECT_LE(recorder.maxBytes(), pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) / 4);
    EXPECT_EQ(InstrumentRecorder({.maxBytes = mebi}).maxBytes(), mebi);
}

TEST_F(RecorderLimitsTest, TakeAPlainPairFor16Bytes) {
    InstrumentRecorder recorder;
    const Listening listening(recorder);
    constexpr std::size_t pairs = 500'000;
    for (std::size_t i = 0; i < pairs; ++i)
        const Scope scope{work_};
    EXPECT_THAT(recorder.getAllEventStats(), SizeIs(1));
    EXPECT_LT(recorder.bytesInUse(), pairs * 16 + 5 * mebi);  // of the newest chunk little is used
    EXPECT_GT(recorder.bytesInUse(), pairs * 16);
}

TEST_F(RecorderLimitsTest, TakeEightBytesMoreForEachInternedContextEntry) {
    InstrumentRecorder recorder;
    const Listening listening(recorder);
    constexpr std::size_t pairs = 300'000;
    for (std::size_t i = 0; i < pairs; ++i)
        const Scope scope{work_, {{"method", "cg"}, {"phase", i % 2 ? "odd" : "even"}}};
    EXPECT_LT(recorder.bytesInUse(), pairs * (32 + 2 * 8) + 5 * mebi);
    const std::size_t before = recorder.bytesInUse();
    for (std::size_t i = 0; i < pairs; ++i) {
        const EventId id = listeners.onEventStart(work_.handle(), ContextSet{{"method", "cg"}});
        listeners.onEventStop(work_.handle(), ContextSet{{"method", "cg"}}, id);
    }
    EXPECT_LT(recorder.bytesInUse() - before, pairs * (32 + 8) + 5 * mebi);
}

TEST_F(RecorderLimitsTest, RefuseNewEventsAndTakeTheStopsOfOpenOnes) {
    for (const std::size_t bound : {64 * kibi, 1 * mebi, 8 * mebi}) {
        InstrumentRecorder recorder({.maxBytes = bound});
        const Listening listening(recorder);
        std::vector<OpenEvent> open;
        while (recorder.drops().refused < 1000)
            for (int i = 0; i < 100; ++i)
                open.push_back(work_.start({{"depth", "any"}}));
        for (auto event = open.rbegin(); event != open.rend(); ++event)
            work_.stop(*event);
        const std::size_t kept = open.size() - recorder.drops().refused;
        EXPECT_GT(kept * 24, bound / 4);
        EXPECT_EQ(recorder.getEventStats("work").count, static_cast<std::int64_t>(kept)) << bound;
        EXPECT_EQ(recorder.drops().total(), recorder.drops().refused);
        expectNoStrayStops(recorder);
        expectWithinBound(recorder);
    }
}

TEST_F(RecorderLimitsTest, RefuseOnManyThreadsAndCountEach) {
    InstrumentRecorder recorder({.maxBytes = 2 * mebi});
    const Listening listening(recorder);
    onThreads(8, [&](int) {
        for (int i = 0; i < 30'000; ++i) {
            const Scope scope{work_};
            if (i % 3 == 0)
                work_.instant();
        }
    });
    EXPECT_EQ(accounted(recorder), 8u * 40'000);
    EXPECT_GT(recorder.drops().refused, 0u);
    EXPECT_EQ(countPoints(recorder, EventPointType::stop),
              countPoints(recorder, EventPointType::start));
    expectNoStrayStops(recorder);
    expectWithinBound(recorder);
}

TEST_F(RecorderLimitsTest, HideStopsOnOtherThreadsOfEventsThatWereRefused) {
    InstrumentRecorder recorder({.maxBytes = 256 * kibi});
    const Listening listening(recorder);
    std::vector<OpenEvent> open;
    while (recorder.drops().refused == 0)
        open.push_back(work_.start());
    for (int i = 0; i < 10; ++i)
        open.push_back(work_.start());
    std::thread([&] {
        for (int i = 0; i < 100; ++i) {
            work_.stop(open.back());
            open.pop_back();
        }
    }).join();
    expectNoStrayStops(recorder);
    EXPECT_GT(recorder.getEventStats("work").count, 0);
}

TEST_F(RecorderLimitsTest, RecordAgainAfterAFullRecorderWasCleared) {
    InstrumentRecorder recorder({.maxBytes = 128 * kibi});
    for (int round = 0; round < 3; ++round) {
        const Listening listening(recorder);
        while (recorder.drops().refused == 0)
            work_.stop(work_.start());
        recorder.clearAllEventData();
        EXPECT_EQ(recorder.bytesInUse(), 0u);
        EXPECT_EQ(recorder.drops().total(), 0u);
        work_.stop(work_.start());
        EXPECT_THAT(recorder.getAllEvents(), SizeIs(1));
        recorder.clearAllEventData();
    }
}

TEST_F(RecorderLimitsTest, KeepTheLast) {
    InstrumentRecorder recorder({.maxBytes = 1 * mebi, .keep = Keep::last});
    const Listening listening(recorder);
    constexpr std::uint64_t count = 200'000;
    EventId last;
    for (std::uint64_t i = 0; i < count; ++i) {
        const auto event = work_.start();
        last = event.id();
        work_.stop(event);
    }
    const auto events = recorder.getAllEvents();
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events.back().id, last);
    EXPECT_EQ(events.size() + recorder.drops().oldest, count);
    EXPECT_EQ(events.back().id.serialId - events.front().id.serialId + 1, events.size());
    EXPECT_GT(events.size() * 32, mebi / 2);
    EXPECT_EQ(recorder.drops().total(), recorder.drops().oldest);
    expectWithinBound(recorder);
}

TEST_F(RecorderLimitsTest, KeepingTheLastCountOnlyWhatTheyHeard) {
    CountingListener other;
    listeners.add(other);
    InstrumentRecorder recorder({.maxBytes = 256 * kibi, .keep = Keep::last});
    const Listening listening(recorder);
    for (int i = 0; i < 20'000; ++i) {
        if (i % 100 == 0) {
            listeners.remove(recorder);
            work_.instant();
            listeners.add(recorder);
        }
        const Scope scope{work_};
    }
    EXPECT_GT(recorder.drops().oldest, 0u);
    EXPECT_EQ(accounted(recorder), 20'000u);
}

TEST_F(RecorderLimitsTest, KeepingTheLastAccountForEveryEventWhileTheyAreRead) {
    InstrumentRecorder recorder({.maxBytes = 2 * mebi, .keep = Keep::last});
    const Listening listening(recorder);
    std::atomic<int> running{8};
    std::thread reader([&] {
        while (running > 0)
            recorder.getAllEventStats();
    });
    onThreads(8, [&](int thread) {
        for (int i = 0; i < 20'000; ++i) {
            const Scope outer{work_, {{"thread", thread}}};
            const Scope inner{work_};
            work_.instant();
        }
        --running;
    });
    reader.join();
    EXPECT_EQ(accounted(recorder), 8u * 60'000);
    EXPECT_GT(recorder.drops().total(), 0u);
    expectNoStrayStops(recorder);
    expectWithinBound(recorder);
}

TEST_F(RecorderLimitsTest, GiveWayOnManyThreadsAndAccountForEveryEvent) {
    for (const Keep keep : {Keep::last, Keep::longest}) {
        InstrumentRecorder recorder({.maxBytes = 2 * mebi, .keep = keep});
        const Listening listening(recorder);
        onThreads(8, [&](int) {
            const Scope whole{whole_};
            for (int i = 0; i < 20'000; ++i) {
                const Scope outer{work_, {{"i", i}}};
                const Scope inner{work_};
                work_.instant();
            }
        });
        EXPECT_EQ(accounted(recorder), 8u * 60'001);
        if (keep == Keep::longest) {
            EXPECT_EQ(recorder.getEventStats("whole").count, 8);
        }
        const RecorderDrops drops = recorder.drops();
        EXPECT_EQ(drops.total(), keep == Keep::last ? drops.oldest : drops.shortest);
        EXPECT_GT(drops.total(), 0u);
        expectNoStrayStops(recorder);
        expectWithinBound(recorder);
    }
}

TEST_F(RecorderLimitsTest, KeepingTheLastHideTheStopOfAnEventWhoseStartIsGone) {
    InstrumentRecorder recorder({.maxBytes = 512 * kibi, .keep = Keep::last});
    const Listening listening(recorder);
    const Instrument outer{"outer"};
    const auto here = outer.start();
    const auto there = outer.start();
    while (recorder.drops().oldest == 0)
        work_.stop(work_.start());
    outer.stop(here);
    std::thread([&] { outer.stop(there); }).join();
    EXPECT_THAT(recorder.getEventPoints("outer"), IsEmpty());
    expectNoStrayStops(recorder);
}

TEST_F(RecorderLimitsTest, KeepingTheLastForgetThreadsThatEnded) {
    InstrumentRecorder recorder({.maxBytes = 256 * kibi, .keep = Keep::last});
    const Listening listening(recorder);
    for (int thread = 0; thread < 300; ++thread)
        std::thread([&] {
            for (int i = 0; i < 100; ++i)
                const Scope scope{work_};
        }).join();
    EXPECT_EQ(accounted(recorder), 30'000u);
    expectNoStrayStops(recorder);
    expectWithinBound(recorder);
}

TEST_F(RecorderLimitsTest, KeepTheLongest) {
    InstrumentRecorder recorder({.maxBytes = 1 * mebi, .keep = Keep::longest});
    const Listening listening(recorder);
    const std::uint64_t source = addExternalSource("", "timed", 1, 1);
    constexpr std::uint64_t count = 200'000;
    std::uint64_t longOnes = 0;
    for (std::uint64_t serial = 1; serial <= count; ++serial) {
        const bool isLong = serial % 100 == 0;
        longOnes += isLong;
        emitTimed(source, serial, static_cast<std::int64_t>(serial) * 1000,
                  isLong ? 1'000'000 : static_cast<std::int64_t>(serial % 99));
    }
    const RecorderDrops drops = recorder.drops();
    EXPECT_GT(drops.shortest, 0u);
    EXPECT_GT(drops.minimumDuration, 0);
    EXPECT_LT(drops.minimumDuration, 1'000'000);
    EXPECT_EQ(drops.total(), drops.shortest);
    std::uint64_t keptLong = 0;
    const auto events = recorder.getAllEvents();
    for (const auto& event : events)
        keptLong += event.duration() == 1'000'000;
    EXPECT_EQ(keptLong, longOnes);
    EXPECT_EQ(events.size() + drops.shortest, count);
    EXPECT_GT(events.size() * 32, mebi / 4);
    for (std::size_t i = 1; i < events.size(); ++i)
        EXPECT_LT(events[i - 1].id.serialId, events[i].id.serialId);
    expectNoStrayStops(recorder);
    expectWithinBound(recorder);
}

TEST_F(RecorderLimitsTest, KeepingTheLongestRaiseTheMinimumAsLongerOnesCome) {
    InstrumentRecorder recorder({.maxBytes = 512 * kibi, .keep = Keep::longest});
    const Listening listening(recorder);
    const std::uint64_t source = addExternalSource("", "timed", 1, 1);
    std::uint64_t serial = 0;
    std::int64_t minimum = 0;
    for (const std::int64_t length : {100, 10'000, 1'000'000}) {
        for (int i = 0; i < 50'000; ++i) {
            ++serial;
            emitTimed(source, serial, static_cast<std::int64_t>(serial) * 2'000'000,
                      length + i % 50);
        }
        EXPECT_GE(recorder.drops().minimumDuration, minimum);
        minimum = recorder.drops().minimumDuration;
    }
    EXPECT_GT(minimum, 10'000);
    const auto events = recorder.getAllEvents();
    EXPECT_EQ(events.size() + recorder.drops().total(), serial);
    ASSERT_FALSE(events.empty());
    expectWithinBound(recorder);
}

TEST_F(RecorderLimitsTest, KeepingTheLongestAccountForEveryEventWhileTheyAreRead) {
    InstrumentRecorder recorder({.maxBytes = 2 * mebi, .keep = Keep::longest});
    const Listening listening(recorder);
    std::atomic<int> running{4};
    std::thread reader([&] {
        while (running > 0)
            recorder.getAllEventStatsByContext();
    });
    onThreads(4, [&](int thread) {
        for (int i = 0; i < 30'000; ++i) {
            const Scope outer{work_, {{"thread", thread}, {"i", i}}};
            const Scope inner{work_};
            work_.instant();
        }
        --running;
    });
    reader.join();
    EXPECT_EQ(accounted(recorder), 4u * 90'000);
    EXPECT_GT(recorder.drops().total(), 0u);
    expectNoStrayStops(recorder);
    expectWithinBound(recorder);
}

/// Takes the console's text.
class Console {
  public:
    Console() {
        text().clear();
        before_ = zandor::setConsoleSink([](const char* part, std::size_t length) noexcept {
            text().append(part, length);
            return static_cast<int>(length);
        });
    }
    ~Console() { zandor::setConsoleSink(before_); }
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;
    static std::string& text() {
        static std::string text;
        return text;
    }

  private:
    zandor::ConsoleSink before_;
};

TEST_F(RecorderLimitsTest, SayOnceThatEventsWereDropped) {
    const Console console;
    InstrumentRecorder recorder({.maxBytes = 64 * kibi});
    const Listening listening(recorder);
    while (recorder.drops().refused < 10)
        work_.stop(work_.start());
    recorder.getAllEvents();
    const std::string said = Console::text();
    EXPECT_THAT(said, HasSubstr(std::to_string(recorder.drops().refused) + " refused"));
    EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1);
    recorder.getAllEvents();
    recorder.getAllEventStats();
    recorder.clearAllEventData();
    EXPECT_EQ(Console::text(), said);
}

/// The system gives so many pieces of memory and then no more.
class MemoryGate {
  public:
    explicit MemoryGate(int pieces) {
        left = pieces;
        detail::pageSource.map = [](std::size_t bytes) noexcept -> void* {
            return left.fetch_sub(1) > 0 ? before.map(bytes) : nullptr;
        };
    }
    ~MemoryGate() { detail::pageSource = before; }
    MemoryGate(const MemoryGate&) = delete;
    MemoryGate& operator=(const MemoryGate&) = delete;
    void open() { left = 1'000'000; }

  private:
    static inline const detail::PageSource before = detail::pageSource;
    static inline std::atomic<int> left{0};
};

TEST_F(RecorderLimitsTest, CountEventsForWhichTheSystemGivesNoMemory) {
    for (int pieces = 0; pieces < 3; ++pieces) {
        MemoryGate gate(pieces);
        InstrumentRecorder recorder;
        const Listening listening(recorder);
        std::uint64_t emitted = 0;
        while (recorder.drops().failed < 100) {
            const Scope scope{work_};
            ++emitted;
        }
        EXPECT_EQ(complete(recorder) + recorder.drops().total(), emitted) << pieces;
        EXPECT_EQ(recorder.drops().total(), recorder.drops().failed);
        expectNoStrayStops(recorder);
        gate.open();
        const auto open = work_.start();
        work_.stop(open);
        const auto events = recorder.getAllEvents();
        ASSERT_FALSE(events.empty());
        EXPECT_EQ(events.back().id, open.id());
        EXPECT_EQ(complete(recorder) + recorder.drops().total(), emitted + 1) << pieces;
        expectNoStrayStops(recorder);
    }
}

}  // namespace
}  // namespace instrument
