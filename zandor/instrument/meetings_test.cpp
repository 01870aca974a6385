#include "meetings.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <random>
#include <vector>

namespace instrument::detail {
namespace {

TEST(Meetings, AreNoneAtFirst) {
    const Meetings meetings;
    EXPECT_FALSE(meetings.has(0, 0));
    EXPECT_FALSE(Meetings(std::vector<Meeting>()).has(0, 0));
}

TEST(Meetings, AreThoseThatWereGiven) {
    std::mt19937_64 random(1);
    for (std::size_t count = 1; count <= 4096; count *= 2) {
        std::vector<Meeting> all{{1, std::numeric_limits<std::int64_t>::min()}};
        while (all.size() < count)  // even times, of two sources
            all.emplace_back(random() % 2, static_cast<std::int64_t>(random() % 1'000'000'000 * 2));
        const Meetings meetings(all);
        for (const auto& [source, time] : all) {
            EXPECT_TRUE(meetings.has(source, time));
            EXPECT_FALSE(meetings.has(source + 2, time));
            EXPECT_FALSE(meetings.has(source, time + 1));
        }
    }
}

}  // namespace
}  // namespace instrument::detail
