#include "longest_events.hpp"

#include <gmock/gmock.h>

#include <vector>

namespace instrument::detail {
namespace {

using testing::ElementsAre;

/// Which of the durations are taken, shown in this order twice.
std::vector<std::int64_t> taken(LongestEvents& longest,
                                const std::vector<std::int64_t>& durations) {
    for (const std::int64_t duration : durations)
        EXPECT_TRUE(longest.takes(0, duration));
    longest.settle();
    std::vector<std::int64_t> found;
    for (const std::int64_t duration : durations)
        if (longest.takes(0, duration))
            found.push_back(duration);
    return found;
}

TEST(LongestEvents, TakesTheLongestInTheirOrder) {
    LongestEvents longest(1, 3);
    EXPECT_THAT(taken(longest, {5, 1, 9, 3, 7}), ElementsAre(5, 9, 7));
}

TEST(LongestEvents, TakesTheFirstOfEquallyLongOnes) {
    LongestEvents longest(1, 3);
    EXPECT_THAT(taken(longest, {4, 4, 8, 4, 4}), ElementsAre(4, 4, 8));
    EXPECT_FALSE(longest.takes(0, 4));
    longest.beginAgain();
    EXPECT_TRUE(longest.takes(0, 4));
}

TEST(LongestEvents, TakesAllOfAThreadThatHasFewer) {
    LongestEvents longest(1, 3);
    EXPECT_THAT(taken(longest, {2, -1}), ElementsAre(2, -1));
}

TEST(LongestEvents, AreThoseOfEachThread) {
    LongestEvents longest(2, 1);
    longest.takes(0, 100);
    longest.takes(1, 1);
    longest.takes(1, 2);
    longest.settle();
    EXPECT_TRUE(longest.takes(0, 100));
    EXPECT_FALSE(longest.takes(1, 1));
    EXPECT_TRUE(longest.takes(1, 2));
}

TEST(LongestEvents, AreAllWithoutABound) {
    LongestEvents longest;
    EXPECT_TRUE(longest.takes(7, 1));
}

}  // namespace
}  // namespace instrument::detail
