#include "lod_lane.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <random>
#include <vector>

namespace instrument::detail {
namespace {

LodSlice slice(std::int64_t begin, std::int64_t end, std::uint32_t name) {
    return LodSlice::of({.start = begin, .end = end, .name = name});
}

LodLane laneOf(const std::vector<LodSlice>& slices, int shift = 0) {
    LodLane lane;
    for (const LodSlice& each : slices)
        lane.add(each, shift);
    return lane;
}

/// What a lane shows on so many pixels.
std::vector<LodSlice> shown(const LodLane& lane, std::int64_t begin, std::int64_t end,
                            std::uint32_t pixels) {
    return lane.window(begin, end, lodShift(begin, end, pixels)).slices();
}

std::uint64_t eventsOf(const std::vector<LodSlice>& slices) {
    std::uint64_t events = 0;
    for (const LodSlice& each : slices) {
        events += each.events;
    }
    return events;
}

// Widths from nothing to a millisecond, with gaps now and then.
std::vector<LodSlice> randomSlices(std::size_t count) {
    std::mt19937_64 random(7);
    std::vector<LodSlice> slices;
    std::int64_t now = -1'000'000;
    while (slices.size() < count) {
        const auto width =
            static_cast<std::int64_t>(random() % (std::uint64_t{1} << random() % 20));
        slices.push_back(slice(now, now + width, random() % 5));
        now += width + static_cast<std::int64_t>(random() % 3 == 0 ? random() % 1000 : 0);
    }
    return slices;
}

TEST(LodLane, GivesEventsAsTheyAreWhereTheyAreWide) {
    const LodLane lane = laneOf({slice(0, 100, 1), slice(150, 300, 2)});
    const auto slices = shown(lane, 0, 400, 400);
    ASSERT_EQ(slices.size(), 2u);
    EXPECT_EQ(slices[1].begin, 150);
    EXPECT_EQ(slices[1].end, 300);
    EXPECT_EQ(slices[1].name, 2u);
    EXPECT_EQ(slices[1].events, 1u);
}

TEST(LodLane, GivesOnlyWhatTouchesTheWindow) {
    const LodLane lane =
        laneOf({slice(0, 10, 1), slice(10, 20, 2), slice(20, 30, 3), slice(30, 40, 4)});
    const auto slices = shown(lane, 10, 30, 100);
    ASSERT_EQ(slices.size(), 2u);
    EXPECT_EQ(slices[0].name, 2u);
    EXPECT_EQ(slices[1].name, 3u);
}

TEST(LodLane, GivesAnEventThatIsLongerThanTheWindow) {
    const LodLane lane = laneOf({slice(0, 1'000'000, 9)});
    ASSERT_EQ(shown(lane, 500, 600, 10).size(), 1u);
}

TEST(LodLane, GivesAnEventWithoutDurationWhereTheWindowBegins) {
    const LodLane lane = laneOf({slice(50, 50, 1)});
    EXPECT_EQ(shown(lane, 50, 60, 10).size(), 1u);
    EXPECT_EQ(shown(lane, 51, 60, 10).size(), 0u);
}

TEST(LodLane, MergesNarrowEventsUnderTheNameWithMostOfTheirTime) {
    std::vector<LodSlice> narrow;
    for (std::int64_t i = 0; i < 100; ++i) {
        narrow.push_back(slice(i * 10, i * 10 + (i % 3 == 0 ? 9 : 2), i % 3 == 0 ? 7 : 8));
    }
    const auto slices = shown(laneOf(narrow), 0, 1'048'576, 1);
    ASSERT_EQ(slices.size(), 1u);
    EXPECT_EQ(slices[0].events, 100u);
    EXPECT_EQ(slices[0].name, 7u);
    EXPECT_EQ(slices[0].busy, 34u * 9 + 66 * 2);
    EXPECT_EQ(slices[0].end, 999);
}

TEST(LodLane, KeepsTheNameOfTheLongerOfTwo) {
    const LodLane longFirst = laneOf({slice(0, 9, 7), slice(9, 11, 8)});
    const LodLane longLast = laneOf({slice(0, 2, 8), slice(2, 11, 7)});
    for (const LodLane* lane : {&longFirst, &longLast}) {
        const auto slices = shown(*lane, 0, 64, 1);
        ASSERT_EQ(slices.size(), 1u);
        EXPECT_EQ(slices[0].name, 7u);
        EXPECT_EQ(slices[0].lead, 7u);
    }
}

TEST(LodLane, LosesNoEventAndNoTimeAtAnyScale) {
    const auto events = randomSlices(20'000);
    const LodLane lane = laneOf(events);
    std::uint64_t busy = 0;
    for (const LodSlice& event : events) {
        busy += event.busy;
    }
    for (std::uint32_t pixels = 1; pixels < 1'000'000; pixels *= 10) {
        const auto slices = shown(lane, -1'000'000, events.back().end + 1, pixels);
        EXPECT_EQ(eventsOf(slices), events.size()) << pixels;
        std::uint64_t inside = 0;
        for (const LodSlice& each : slices) {
            inside += each.busy;
        }
        EXPECT_EQ(inside, busy) << pixels;
    }
}

TEST(LodLane, GivesNoMoreThanAScreenHolds) {
    const auto events = randomSlices(50'000);
    const LodLane lane = laneOf(events);
    const std::int64_t end = events.back().end + 1;
    for (std::int64_t width = end; width > 1000; width /= 3) {
        for (const std::uint32_t pixels : {1u, 100u, 1000u}) {
            EXPECT_LE(shown(lane, end - width, end, pixels).size(), 4 * pixels + 6);
        }
    }
}

TEST(LodLane, KeepsItsOrder) {
    const LodLane lane = laneOf(randomSlices(20'000));
    const auto slices = shown(lane, -1'000'000, 1'000'000'000, 777);
    ASSERT_GT(slices.size(), 2u);
    for (std::size_t i = 1; i < slices.size(); ++i) {
        EXPECT_LE(slices[i - 1].end, slices[i].begin);
    }
}

TEST(LodLane, TakesTheWidestWindow) {
    using Limits = std::numeric_limits<std::int64_t>;
    const LodLane lane = laneOf({slice(-5, 5, 1)});
    EXPECT_EQ(shown(lane, Limits::min(), Limits::max(), 1).size(), 1u);
}

TEST(LodLane, GivesNothingForNothing) {
    EXPECT_TRUE(shown(LodLane(), 0, 10, 10).empty());
    EXPECT_TRUE(shown(laneOf({slice(0, 10, 1)}), 20, 30, 10).empty());
}

TEST(LodLane, CutsWhatOverlaps) {
    const LodLane lane = laneOf({slice(0, 10, 1), slice(9, 12, 2), slice(3, 4, 3)});
    ASSERT_EQ(lane.size(), 3u);
    EXPECT_EQ(lane.slices()[1].begin, 10);
    EXPECT_EQ(lane.slices()[2].begin, 12);
    EXPECT_EQ(lane.slices()[2].end, 12);
}

TEST(LodLane, MergesAsItGrowsAsItWouldLater) {
    const auto events = randomSlices(20'000);
    LodLane later = laneOf(events);
    later.coarsen(12);
    const LodLane atOnce = laneOf(events, 12);
    ASSERT_EQ(later.size(), atOnce.size());
    EXPECT_LT(later.size(), events.size());
    EXPECT_EQ(eventsOf(later.slices()), events.size());
}

}  // namespace
}  // namespace instrument::detail
