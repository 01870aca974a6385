#include "vantrace/instrument/nanoseconds.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace {

using vantrace::nanosecondsPerSecond;
using vantrace::toCount;
using vantrace::toSeconds;

constexpr std::int64_t smallest = std::numeric_limits<std::int64_t>::min();
constexpr double infinity = std::numeric_limits<double>::infinity();

TEST(Nanoseconds, AreTruncatedTowardZero) {
    EXPECT_EQ(toCount(0.25 * nanosecondsPerSecond), 250'000'000);
    EXPECT_EQ(toCount(1e-10 * nanosecondsPerSecond), 0);
    EXPECT_EQ(toCount(-1e-10 * nanosecondsPerSecond), 0);
    EXPECT_EQ(toCount(2.9), 2);
    EXPECT_EQ(toCount(-2.9), -2);
}

TEST(Nanoseconds, WithoutACountAreTheSmallest) {
    for (const double seconds : {std::nan(""), infinity, -infinity, 1e300, 0x1p63, -0x1.8p63})
        EXPECT_EQ(toCount(seconds), smallest) << seconds;
    EXPECT_EQ(toCount(-0x1p63), smallest);
    EXPECT_EQ(toCount(0x1.fffffffffffffp62), 0x7ffffffffffffc00);
}

TEST(Nanoseconds, BecomeSecondsByDivision) {
    EXPECT_EQ(toSeconds(1'500'000'000), 1.5);
    EXPECT_EQ(toSeconds(3), 3 / 1e9);
    EXPECT_EQ(toSeconds(-7), -7 / 1e9);
}

}  // namespace
