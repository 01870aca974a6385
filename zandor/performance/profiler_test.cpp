#include "zandor/performance/profiler.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <barrier>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "zandor/instrument/controls.hpp"
#include "zandor/instrument/instrument.hpp"
#include "zandor/instrument/recorder.hpp"
#include "zandor/instrument/source.hpp"
#include "zandor/performance/profile_table.hpp"
#include "zandor/runtime/sanitizers.hpp"

namespace instrument {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class Profiler : public ::testing::Test {
  protected:
    Profiler() {
        controls.enableAll(true);
        listeners.add(profiler);
    }
    ~Profiler() override {
        listeners.remove(profiler);
        controls.disableAll();
    }

    // Events whose times are known.
    EventId begin(const char* name, std::int64_t time) {
        const EventId id{source_, ++serial_};
        listeners.onEventStartAt(controls.getHandle(name), {}, id, time);
        return id;
    }
    static void end(EventId id, std::int64_t time) {
        listeners.onEventStopAt(controls.getHandle("any"), {}, id, time);
    }

    CallSummary of(const std::string& name) const {
        for (const CallSummary& row : profiler.getSummary())
            if (row.name == name)
                return row;
        return {};
    }

    InstrumentProfiler profiler;

  private:
    const std::uint64_t source_ = addExternalSource("client", "worker", 1, 1);
    std::uint64_t serial_ = 0;
};

TEST_F(Profiler, HasNothingForNoEvents) {
    EXPECT_THAT(profiler.getSummary(), IsEmpty());
    EXPECT_THAT(profiler.getData(), IsEmpty());
}

TEST_F(Profiler, TakesWhatIsInsideFromTheSelfTime) {
    const EventId outer = begin("outer", 100);
    end(begin("inner", 200), 250);
    end(begin("inner", 300), 400);
    end(outer, 1100);
    const CallSummary outside = of("outer");
    EXPECT_EQ(outside.calls, 1u);
    EXPECT_EQ(outside.total, 1000);
    EXPECT_EQ(outside.self, 850);
    const CallSummary inside = of("inner");
    EXPECT_EQ(inside.calls, 2u);
    EXPECT_EQ(inside.start, 100);  // since the profile began
    EXPECT_EQ(inside.total, 150);
    EXPECT_EQ(inside.self, 150);
    EXPECT_EQ(inside.min, 50);
    EXPECT_EQ(inside.max, 100);
}

TEST_F(Profiler, GivesRowsInOrderOfFirstStartInSeconds) {
    const EventId outer = begin("z", 1'000'000'000);
    end(begin("a", 1'500'000'000), 2'000'000'000);
    end(outer, 3'000'000'000);
    using Row = InstrumentProfiler::Row;
    EXPECT_THAT(profiler.getData(),
                ElementsAre(Row("z", 1, 0.0, 2.0, 1.5), Row("a", 1, 0.5, 0.5, 0.5)));
}

TEST_F(Profiler, CountsRecursionOnceInTheTotal) {
    const EventId first = begin("f", 0);
    const EventId between = begin("g", 10);
    const EventId second = begin("f", 20);
    end(second, 50);
    end(between, 70);
    end(first, 100);
    EXPECT_EQ(of("f").calls, 2u);
    EXPECT_EQ(of("f").total, 100);
    EXPECT_EQ(of("f").self, 40 + 30);
    EXPECT_EQ(of("g").total, 60);
    EXPECT_EQ(of("g").self, 30);
}

TEST_F(Profiler, CountsDeepRecursionOnceToo) {
    constexpr int depth = 5000;
    std::vector<EventId> open;
    for (int i = 0; i < depth; ++i)
        open.push_back(begin(i % 2 ? "odd" : "even", i));
    for (int i = depth; i-- > 0;)
        end(open[static_cast<std::size_t>(i)], 2 * depth - i);
    EXPECT_EQ(of("even").calls, depth / 2);
    EXPECT_EQ(of("even").total, 2 * depth);
    EXPECT_EQ(of("odd").total, 2 * depth - 2);
    EXPECT_EQ(of("even").self + of("odd").self, 2 * depth);
}

TEST_F(Profiler, KeepsManyCallsOfOneCallerApart) {
    constexpr int names = 3000;
    const EventId caller = begin("caller", 0);
    for (int round = 0; round < 2; ++round)
        for (int i = 0; i < names; ++i)
            end(begin(("child" + std::to_string(i)).c_str(), i), i + 7);
    end(caller, 10'000'000);
    const auto rows = profiler.getSummary();
    ASSERT_EQ(rows.size(), names + 1u);
    EXPECT_EQ(of("caller").self, 10'000'000 - 2 * names * 7);
    for (const CallSummary& row : rows) {
        if (row.name == "caller")
            continue;
        EXPECT_EQ(row.calls, 2u) << row.name;
        EXPECT_EQ(row.total, 14) << row.name;
    }
}

TEST_F(Profiler, KnowsHowLongMostCallsTook) {
    for (int i = 1; i <= 1000; ++i)
        end(begin("f", 0), i <= 980 ? 1000 : 1'000'000);
    EXPECT_NEAR(static_cast<double>(of("f").p50), 1000, 125);
    EXPECT_NEAR(static_cast<double>(of("f").p99), 1e6, 1.25e5);
    EXPECT_EQ(of("f").min, 1000);
    EXPECT_EQ(of("f").max, 1'000'000);
}

TEST_F(Profiler, CountsCallsThatOverlapInFull) {
    const EventId a = begin("a", 0);
    const EventId b = begin("b", 50);
    end(a, 100);
    end(b, 150);
    EXPECT_EQ(of("a").total, 100);
    EXPECT_EQ(of("b").total, 100);
    end(begin("c", 200), 300);  // not inside of anything
    EXPECT_EQ(of("c").self, 100);
}

TEST_F(Profiler, LeavesOpenCallsAndStrayStopsOut) {
    const EventId open = begin("open", 0);
    const EventId closed = begin("closed", 10);
    end(closed, 20);
    end(closed, 30);
    end(EventId{open.sourceId, 12'345}, 30);
    EXPECT_EQ(of("open").calls, 0u);
    EXPECT_EQ(of("closed").calls, 1u);
    EXPECT_EQ(of("closed").total, 10);
    end(open, 40);
    EXPECT_EQ(of("open").total, 40);
}

TEST_F(Profiler, LeavesStopsOutWhateverTheirSerialsAre) {
    const Instrument work("stray");
    const OpenEvent first = work.start();
    const auto strayStop = [&](std::uint64_t serial) {
        listeners.onEventStop(work.handle(), ContextSet(), {first.id().sourceId, serial});
    };
    work.stop(first);
    constexpr std::uint64_t highest = std::uint64_t{1} << 63;
    for (const std::uint64_t serial : {std::uint64_t{0}, highest - 1, highest, ~std::uint64_t{0}})
        strayStop(serial);
    EXPECT_EQ(of("stray").calls, 1);
    const OpenEvent second = work.start();
    strayStop(second.id().serialId | highest);
    EXPECT_EQ(of("stray").calls, 1);
    work.stop(second);
    EXPECT_EQ(of("stray").calls, 2);
}

TEST_F(Profiler, KeepsItsMemoryWhereStartsAreNeverStopped) {
    for (int i = 0; i < 3'000'000; ++i)
        begin("never stopped", i);
    end(begin("f", 4'000'000), 4'000'100);
    EXPECT_EQ(of("f").total, 100);
    EXPECT_EQ(profiler.lostEvents(), 0u);
}

TEST_F(Profiler, TakesStopsOfOtherThreads) {
    const Instrument handed("profiler.handed");
    std::optional<OpenEvent> event(handed.start());
    std::thread([&] { handed.stop(*event); }).join();
    handed.stop(*event);  // not a second time
    EXPECT_EQ(of("profiler.handed").calls, 1u);
    EXPECT_EQ(of("profiler.handed").total, of("profiler.handed").self);
    { const Scope scope(handed); }
    EXPECT_EQ(of("profiler.handed").calls, 2u);
}

TEST_F(Profiler, CountsAStopOnceHoweverManyThreadsTryIt) {
    const Instrument raced("profiler.raced");
    constexpr int rounds = 2000;
    std::optional<OpenEvent> event;
    std::barrier meet(3);
    std::vector<std::thread> others;
    for (int i = 0; i < 2; ++i)
        others.emplace_back([&] {
            for (int round = 0; round < rounds; ++round) {
                meet.arrive_and_wait();
                raced.stop(*event);
                meet.arrive_and_wait();
            }
        });
    for (int round = 0; round < rounds; ++round) {
        event.emplace(raced.start());
        meet.arrive_and_wait();
        raced.stop(*event);
        meet.arrive_and_wait();
    }
    for (std::thread& other : others)
        other.join();
    EXPECT_EQ(of("profiler.raced").calls, static_cast<std::uint64_t>(rounds));
}

/// Calls that do not nest in themselves.
void work(int thread, int rounds) {
    static const Instrument outer("profiler.outer");
    static const Instrument inner("profiler.inner");
    static const Instrument leaf("profiler.leaf");
    for (int i = 0; i < rounds; ++i) {
        const Scope first(outer, {{"thread", thread}});
        for (int k = 0; k < i % 4; ++k) {
            const Scope second(inner);
            const Scope third(leaf, {{"k", k}});
        }
    }
}

TEST_F(Profiler, HasTheRecordersTotalsExactlyUnderEightThreads) {
    constexpr int threadCount = 8;
    InstrumentRecorder recorder;
    listeners.add(recorder);
    std::barrier begin(threadCount);
    std::atomic<int> running{threadCount};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < threadCount; ++thread)
        threads.emplace_back([&, thread] {
            begin.arrive_and_wait();
            work(thread, 5000);
            --running;
        });
    while (running > 0)
        profiler.getSummary();
    for (std::thread& thread : threads)
        thread.join();
    listeners.remove(profiler);
    listeners.remove(recorder);
    const auto stats = recorder.getAllEventStats();
    EXPECT_EQ(stats.size(), 3u);
    std::int64_t selfTimes = 0;
    for (const auto& recorded : stats) {
        const CallSummary profiled = of(std::string(recorded.name));
        EXPECT_EQ(profiled.calls, static_cast<std::uint64_t>(recorded.count)) << recorded.name;
        EXPECT_EQ(profiled.total, recorded.duration) << recorded.name;
        selfTimes += profiled.self;
    }
    EXPECT_EQ(selfTimes, of("profiler.outer").total);
    EXPECT_EQ(profiler.lostEvents(), 0u);
}

long residentPages() {
    long size = 0;
    long resident = 0;
    if (std::FILE* file = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(file, "%ld %ld", &size, &resident) != 2)
            resident = 0;
        std::fclose(file);
    }
    return resident;
}

TEST_F(Profiler, UsesNoMoreMemoryForMoreCallsOfTheSamePaths) {
    work(0, 1000);
    const long before = residentPages();
    work(0, 300'000);
    EXPECT_LE(residentPages(), before + 512);  // 16 bytes a call were 4,700 pages
    EXPECT_EQ(of("profiler.outer").calls, 301'000u);
}

TEST_F(Profiler, KeepsCallsOfThreadsThatEndedInTheSameMemory) {
    std::thread([] { work(0, 4); }).join();
    const long before = residentPages();
    for (int i = 0; i < 2000; ++i)
        std::thread([] { work(0, 4); }).join();
    if (!ZANDOR_SANITIZED) {  // which keep what they know of threads
        EXPECT_LE(residentPages(), before + 512);
    }
    EXPECT_EQ(of("profiler.outer").calls, 4u * 2001);
}

TEST_F(Profiler, AThreadThatEndedInACallLeavesNoCallerBehind) {
    const Instrument left("profiler.left");
    const Instrument later("profiler.later");
    std::optional<OpenEvent> event;
    std::thread([&] { event.emplace(left.start()); }).join();
    std::thread([&] { const Scope scope(later); }).join();
    EXPECT_EQ(of("profiler.later").total, of("profiler.later").self);
    EXPECT_EQ(of("profiler.left").calls, 0u);
}

TEST_F(Profiler, ClearsWhileCallsRun) {
    const Instrument running("profiler.running");
    std::atomic<bool> ended{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i)
        threads.emplace_back([&] {
            while (!ended)
                work(0, 10);
        });
    for (int i = 0; i < 300; ++i)
        profiler.clear();
    ended = true;
    for (std::thread& thread : threads)
        thread.join();
    profiler.clear();
    EXPECT_THAT(profiler.getSummary(), IsEmpty());
    auto open = running.start();
    profiler.clear();
    running.stop(open);
    EXPECT_THAT(profiler.getSummary(), IsEmpty());
    { const Scope scope(running); }
    EXPECT_EQ(of("profiler.running").calls, 1u);
}

TEST_F(Profiler, IsRegisteredAndEmptyInAForkedChild) {
    work(0, 4);
    const pid_t child = ::fork();
    if (child == 0) {
        const bool empty = profiler.getSummary().empty() && listeners.has(profiler);
        work(0, 4);
        ::_exit(empty && of("profiler.outer").calls == 4 ? 0 : 1);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(of("profiler.outer").calls, 4u);
}

TEST(ProfileTable, IsEightyColumnsWideWithTheWidestTimeFirst) {
    const std::string table = detail::profileTable({
        {"short", 12, 0, 999, 999, 1, 1, 1, 1},
        {"a name that does not fit into its column at all", 1'000'000'000'000, 5, 5'432'100'000'000,
         4'000'000'000'000, 1, 1, 1, 1},
        {"Größe des Gitters: äöü äöü äöü äöü äöü", 1, 7, 12'345'678, 345'678, 1, 1, 1, 1},
        {"eine zu lange Größe der Matrizenäöü", 1, 7, 1'000'000, 0, 1, 1, 1, 1},
        {"", 3, 9, 0, 0, 0, 0, 0, 0},
        {"two\nlines", 1, 9, 99'996, 0, 0, 0, 0, 0},
    });
    EXPECT_EQ(table,
              "event                                      calls      total       self   self %\n"
              "a name that does not fit into i... 1000000000000     5432 s     4000 s    100.0\n"
              "Größe des Gitters: äöü äöü äöü ...             1   12.35 ms   345.7 us      0.0\n"
              "eine zu lange Größe der Matrize...             1   1.000 ms       0 ns      0.0\n"
              "two?lines                                      1   100.0 us       0 ns      0.0\n"
              "short                                         12     999 ns     999 ns      0.0\n"
              "(unnamed)                                      3       0 ns       0 ns      0.0\n");
}

}  // namespace
}  // namespace instrument
