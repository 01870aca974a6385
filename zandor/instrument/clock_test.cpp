#include "zandor/instrument/clock.hpp"

#include <gtest/gtest.h>
#include <time.h>

#include <random>
#include <vector>

#include "zandor/instrument/clock_source.hpp"
#include "zandor/instrument/testing/recorder_support.hpp"

namespace instrument {
namespace {

using detail::ClockSource;
using detail::Lock;
using detail::TickConverter;
using test_support::onThreads;

std::int64_t monotonicNow() noexcept {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<std::int64_t>(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
}

TEST(Clock, TicksBecomeTheMonotonicClocksTime) {
    for (int i = 0; i < 1000; ++i) {
        const std::int64_t before = monotonicNow();
        const std::uint64_t ticks = clock::ticks();
        const std::int64_t after = monotonicNow();
        // A line may leave the kernel's clock by what a rate changes within a part of a second.
        EXPECT_GE(clock::toNanoseconds(ticks), before - 50'000);
        EXPECT_LE(clock::toNanoseconds(ticks), after + 50'000);
    }
}

TEST(Clock, ATicksTimeIsTheSameInEachReading) {
    std::vector<std::uint64_t> ticks;
    std::vector<std::int64_t> times;
    for (int i = 0; i < 5000; ++i) {
        ticks.push_back(clock::ticks());
        times.push_back(clock::toNanoseconds(ticks.back()));
    }
    detail::TickReader reader;
    for (int i = 0; i < 5000; ++i) {
        EXPECT_EQ(clock::toNanoseconds(ticks[i]), times[i]);
        EXPECT_EQ(reader(ticks[i]), times[i]);
    }
    for (int i = 4999; i >= 0; --i)
        EXPECT_EQ(reader(ticks[i]), times[i]);
}

TEST(Clock, TimeNeverGoesBackWithinAThread) {
    onThreads(4, [](int) {
        std::uint64_t lastTicks = clock::ticks();
        std::int64_t last = clock::toNanoseconds(lastTicks);
        for (int i = 0; i < 200'000; ++i) {
            const std::uint64_t ticks = clock::ticks();
            const std::int64_t time = clock::toNanoseconds(ticks);
            ASSERT_GE(ticks, lastTicks);
            ASSERT_GE(time, last);
            lastTicks = ticks;
            last = time;
        }
    });
}

TEST(Clock, AConversionIsMonotone) {
    const std::uint64_t start = clock::ticks();
    for (int i = 0; i < 2000; ++i)
        clock::toNanoseconds(clock::ticks());
    const std::uint64_t end = clock::ticks();
    std::mt19937_64 random(1);
    std::vector<std::uint64_t> ticks;
    for (int i = 0; i < 20'000; ++i)
        ticks.push_back(start + random() % (end - start));
    std::sort(ticks.begin(), ticks.end());
    std::int64_t last = 0;
    for (const std::uint64_t tick : ticks) {
        const std::int64_t time = clock::toNanoseconds(tick);
        EXPECT_GE(time, last);
        last = time;
    }
}

TEST(Clock, UtcIsTheSystemsClock) {
    const std::int64_t before = time(nullptr) - 1;
    EXPECT_GE(clock::utcNow() / 1'000'000'000, before);
    EXPECT_LE(clock::utcNow() / 1'000'000'000, before + 100);
}

// A machine whose counter and clock the tests move.
std::uint64_t fakeTicks = 0;
std::int64_t fakeTime = 0;

std::uint64_t readFakeTicks() noexcept {
    return ++fakeTicks;
}
std::int64_t readFakeTime() noexcept {
    return fakeTime;
}

constexpr ClockSource fakeTsc{readFakeTicks, readFakeTime, true};

class FakeMachine : public testing::Test {
  protected:
    void SetUp() override {
        fakeTicks = 1'000'000;
        fakeTime = 5'000'000'000;
        converter.start(fakeTsc);
    }
    void advance(std::uint64_t ticks, std::int64_t time) {
        fakeTicks += ticks;
        fakeTime += time;
    }
    std::int64_t convert(std::uint64_t ticks) { return converter.lineFor(ticks, lock).at(ticks); }

    TickConverter converter;
    Lock lock;
};

TEST_F(FakeMachine, ACounterOfThreeTicksANanosecondIsConverted) {
    std::int64_t furthest = 0;
    for (int i = 0; i < 10'000; ++i) {
        advance(3'000'000, 1'000'000);
        furthest = std::max(furthest, std::abs(convert(fakeTicks) - fakeTime));
    }
    EXPECT_LT(furthest, 100);
}

TEST_F(FakeMachine, ManyReadingsOverALongTimeNeedFewKnots) {
    for (int i = 0; i < 200'000; ++i) {
        advance(3'000'000, 1'000'000);
        convert(fakeTicks);
    }
    EXPECT_LT(converter.knotCount(), 30'000u);
}

TEST_F(FakeMachine, ReadingsOnEveryTickNeedFewKnots) {
    for (int i = 0; i < 200'000; ++i) {
        advance(300, 100);
        convert(fakeTicks);
    }
    EXPECT_LT(converter.knotCount(), 22'000u);
}

TEST_F(FakeMachine, ADriftingRateIsFollowedWithoutGoingBack) {
    std::int64_t last = 0;
    for (int i = 0; i < 20'000; ++i) {
        advance(3'000'000 + (i % 7) * 100, 1'000'000);
        const std::int64_t time = convert(fakeTicks);
        EXPECT_GE(time, last);
        EXPECT_LT(std::abs(time - fakeTime), 2'000'000);
        last = time;
    }
}

TEST_F(FakeMachine, TimesStayAsTheyWereWhenTheMachineSlept) {
    std::vector<std::pair<std::uint64_t, std::int64_t>> told;
    const auto run = [&] {
        for (int i = 0; i < 100; ++i) {
            advance(3'000'000, 1'000'000);
            const std::uint64_t ticks = fakeTicks;
            told.emplace_back(ticks, convert(ticks));
        }
    };
    run();
    advance(30'000'000'000, 0);  // the counter went on while the clock stood still
    run();
    advance(0, 10'000'000'000);  // and the other way round
    run();
    std::int64_t last = 0;
    for (const auto& [ticks, time] : told) {
        EXPECT_EQ(convert(ticks), time);
        EXPECT_GE(time, last);
        last = time;
    }
}

TEST_F(FakeMachine, ACounterThatWentBackDoesNotTakeTimesBackThatWereTold) {
    advance(3'000'000'000, 1'000'000'000);
    const std::uint64_t ticks = fakeTicks;
    const std::int64_t time = convert(ticks);
    fakeTicks = 10;
    fakeTime += 1'000'000;
    EXPECT_LE(convert(fakeTicks), time);
    EXPECT_EQ(convert(ticks), time);
    EXPECT_GE(convert(ticks + 1'000'000'000), time);
}

TEST_F(FakeMachine, TicksFromBeforeTheFirstKnotAreAtItsTime) {
    advance(3'000'000, 1'000'000);
    EXPECT_EQ(convert(1), 5'000'000'000);
    EXPECT_EQ(convert(0), 5'000'000'000);
}

TEST_F(FakeMachine, ConversionsByManyThreadsAgree) {
    constexpr int count = 20'000;
    static std::atomic<std::uint64_t> ticks{0};
    ticks = 1'000'000;
    constexpr ClockSource moving{[]() noexcept { return ticks += 3000; },
                                 []() noexcept { return static_cast<std::int64_t>(ticks / 3); },
                                 true};
    TickConverter shared;
    shared.start(moving);
    std::vector<std::vector<std::pair<std::uint64_t, std::int64_t>>> told(4);
    onThreads(4, [&](int thread) {
        for (int i = 0; i < count; ++i) {
            const std::uint64_t now = ticks += 3000;
            told[thread].emplace_back(now, shared.lineFor(now, lock).at(now));
        }
    });
    for (const auto& thread : told)
        for (const auto& [tick, time] : thread)
            EXPECT_EQ(shared.lineFor(tick, lock).at(tick), time);
}

constexpr ClockSource withoutTsc{
    []() noexcept { return static_cast<std::uint64_t>(monotonicNow()); }, monotonicNow, false};

TEST(ClockFallback, WithoutATrustedCounterTicksAreNanosecondsOfTheMonotonicClock) {
    detail::replaceClockSource(&withoutTsc);
    EXPECT_STREQ(clock::name(), "monotonic");
    const std::int64_t before = monotonicNow();
    const std::uint64_t ticks = clock::ticks();
    const std::int64_t after = monotonicNow();
    EXPECT_EQ(clock::toNanoseconds(ticks), static_cast<std::int64_t>(ticks));
    EXPECT_GE(clock::toNanoseconds(ticks), before);
    EXPECT_LE(clock::toNanoseconds(ticks), after);
    detail::TickReader reader;
    for (std::uint64_t i = 5; i < 10; ++i)
        EXPECT_EQ(reader(i), static_cast<std::int64_t>(i));
    detail::replaceClockSource(nullptr);
}

}  // namespace
}  // namespace instrument
