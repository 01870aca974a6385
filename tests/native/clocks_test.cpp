// Times of events, with threads that move between processors, and with clocks that jump.
#include <sched.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <functional>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include "soak_support.hpp"
#include "zandor/instrument/clock.hpp"
#include "zandor/instrument/clock_source.hpp"
#include "zandor/instrument/event_context.hpp"
#include "zandor/instrument/testing/event_log.hpp"
#include "zandor/instrument/testing/recorder_support.hpp"

namespace instrument {
namespace {

using detail::ClockSource;
using test_support::HandlerListener;
using test_support::Listening;
using test_support::onThreads;

std::int64_t monotonicNow() noexcept {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<std::int64_t>(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
}

constexpr ClockSource withoutCounter{
    []() noexcept { return static_cast<std::uint64_t>(monotonicNow()); }, monotonicNow, false};

/// The machine's best clock, or the one of a machine whose counter is not to be trusted.
class UnderClock {
  public:
    explicit UnderClock(const ClockSource* source) { detail::replaceClockSource(source); }
    ~UnderClock() { detail::replaceClockSource(nullptr); }
    UnderClock(const UnderClock&) = delete;
    UnderClock& operator=(const UnderClock&) = delete;
};

/// Has the calling thread go on on the next of the processors that it may use.
class Wanderer {
  public:
    Wanderer() { sched_getaffinity(0, sizeof allowed_, &allowed_); }
    void move() {
        do {
            processor_ = (processor_ + 1) % CPU_SETSIZE;
        } while (!CPU_ISSET(processor_, &allowed_));
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(processor_, &one);
        sched_setaffinity(0, sizeof one, &one);
    }

  private:
    cpu_set_t allowed_{};
    int processor_ = 0;
};

class WanderingThreads : public Counted<test_support::RecorderTest> {
  protected:
    const Instrument work_{"work"};
};

TEST_P(WanderingThreads, HaveTimesThatNeverGoBack) {
    static thread_local std::int64_t last;
    std::atomic<int> wentBack{0};
    HandlerListener watching([&](auto, const Opaque*, const EventContext& context, auto, auto) {
        const std::int64_t now = context.time();
        wentBack += now < last;
        last = now;
    });
    for (const ClockSource* source : {static_cast<const ClockSource*>(nullptr), &withoutCounter}) {
        const UnderClock clock(source);
        const Listening listening(watching);
        onThreads(4, [&](int) {
            last = 0;
            Wanderer wanderer;
            for (int i = 0; i < countOver(8); ++i) {
                if (i % 1000 == 0)
                    wanderer.move();
                const Scope scope{work_};
            }
        });
        EXPECT_EQ(wentBack, 0) << clock::name();
    }
}

TEST_P(WanderingThreads, RecordNoNegativeDuration) {
    for (const ClockSource* source : {static_cast<const ClockSource*>(nullptr), &withoutCounter}) {
        const UnderClock clock(source);
        InstrumentRecorder recorder({.maxBytes = 32 << 20, .keep = Keep::last});
        const Listening listening(recorder);
        onThreads(4, [&](int) {
            Wanderer wanderer;
            for (int i = 0; i < countOver(8); ++i) {
                const Scope scope{work_};
                if (i % 1000 == 0)
                    wanderer.move();
            }
        });
        int negative = 0;
        for (const auto& event : recorder.getAllEvents())
            negative += event.duration() < 0;
        EXPECT_EQ(negative, 0) << clock::name();
    }
}

// A hundred million events under each clock.
SHORT_AND_SOAK(WanderingThreads, 400'000, 200'000'000);

// A machine whose counter and clock jump: it sleeps, moves to another host, changes its rate.
std::atomic<std::uint64_t> jumpingTicks{0};
std::atomic<std::int64_t> jumpingTime{0};

constexpr ClockSource jumping{[]() noexcept { return jumpingTicks += 30; },
                              []() noexcept { return jumpingTime += 10; }, true};

void jump(std::mt19937& random) {
    constexpr std::int64_t second = 1'000'000'000;
    switch (random() % 8) {
        case 0:  // slept: the counter went on alone
            jumpingTicks += 3 * second * (random() % 100);
            break;
        case 1:  // suspended: the clock went on alone
            jumpingTime += second * static_cast<std::int64_t>(random() % 100);
            break;
        case 2:  // another rate from now on, for a while
            jumpingTicks += second;
            jumpingTime += second;
            break;
        default:
            jumpingTicks += 3'000'000;
            jumpingTime += 1'000'000;
    }
}

class JumpingClocks : public Counted<test_support::RecorderTest> {
  protected:
    void SetUp() override {
        RecorderTest::SetUp();
        jumpingTicks = 1'000'000;
        jumpingTime = 5'000'000'000;
    }
    const Instrument work_{"work"};
};

TEST_P(JumpingClocks, TwoReadingsOfAnEventAgree) {
    const UnderClock clock(&jumping);
    std::mt19937 random(1);
    InstrumentRecorder recorder;
    const Listening listening(recorder);
    std::vector<InstrumentRecorder::Event> before;
    for (int i = 0; i < count(); ++i) {
        jump(random);
        { const Scope scope{work_}; }
        if (i % countOver(10) == 0)
            before = recorder.getAllEvents();
    }
    const auto after = recorder.getAllEvents();
    ASSERT_FALSE(before.empty());
    for (std::size_t i = 0; i < before.size(); ++i) {
        ASSERT_EQ(before[i].startTimePoint, after[i].startTimePoint);
        ASSERT_EQ(before[i].stopTimePoint, after[i].stopTimePoint);
    }
    for (const auto& event : after)
        ASSERT_GE(event.duration(), 0);
}

/// The times of events that two threads emit in turn, each when it has heard of the one before.
std::vector<std::int64_t> timesOfHandOvers(int rounds, const Instrument& work,
                                           const std::function<void(int)>& before) {
    InstrumentRecorder recorder;
    const Listening listening(recorder);
    std::barrier handOver(2);
    onThreads(2, [&](int thread) {
        for (int i = 0; i < rounds; ++i) {
            if (i % 2 == thread) {
                before(thread);
                work.instant({{"i", i}});
            }
            handOver.arrive_and_wait();
        }
    });
    std::vector<std::int64_t> times(static_cast<std::size_t>(rounds));
    for (const auto& point : recorder.getAllEventPoints())
        times.at(std::stoul(test_support::textOf(point.context).substr(2))) = point.timePoint;
    return times;
}

std::int64_t furthestBack(const std::vector<std::int64_t>& times) {
    std::int64_t furthest = 0;
    for (std::size_t i = 1; i < times.size(); ++i)
        furthest = std::max(furthest, times[i - 1] - times[i]);
    return furthest;
}

TEST_P(JumpingClocks, HandOversBetweenThreadsDoNotGoBackWhereTheyReadOneCounter) {
    const UnderClock clock(&jumping);
    std::mt19937 random(2);
    const auto times = timesOfHandOvers(countOver(20), work_, [&](int) { jump(random); });
    EXPECT_GT(times.back(), times.front());
    EXPECT_EQ(furthestBack(times), 0);
}

// Of two processors the second's counter is behind by so many ticks, three of which are a
// nanosecond.
constexpr std::uint64_t behind = 3000;
thread_local std::uint64_t ticksBehind = 0;
constexpr ClockSource unequal{[]() noexcept { return (jumpingTicks += 30) - ticksBehind; },
                              []() noexcept { return jumpingTime += 10; }, true};

TEST_P(JumpingClocks, HandOversGoBackByNoMoreThanCountersDiffer) {
    const UnderClock clock(&unequal);
    const auto times = timesOfHandOvers(countOver(20), work_, [](int thread) {
        ticksBehind = thread == 1 ? behind : 0;
        jumpingTicks += 300;
        jumpingTime += 100;
    });
    EXPECT_GT(furthestBack(times), 0);
    EXPECT_LE(furthestBack(times), static_cast<std::int64_t>(behind / 3) * 11 / 10);
}

SHORT_AND_SOAK(JumpingClocks, 20'000, 1'000'000);

}  // namespace
}  // namespace instrument
