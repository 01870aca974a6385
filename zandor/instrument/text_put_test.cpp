#include "text_put.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace instrument::detail {
namespace {

/// Numbers of all lengths: beside powers of ten, and at random.
std::vector<std::uint64_t> manyNumbers() {
    std::vector<std::uint64_t> numbers{0, std::numeric_limits<std::uint64_t>::max()};
    std::uint64_t power = 1;
    for (int digits = 1; digits <= 20; ++digits, power *= 10)
        numbers.insert(numbers.end(), {power - 1, power, power + 1, power * 5 + power / 7});
    std::mt19937_64 random(1);
    for (int i = 0; i < 100'000; ++i)
        numbers.push_back(random() >> i % 64);
    return numbers;
}

TEST(TextPut, DecimalTextIsThatOfTheNumber) {
    for (const std::uint64_t number : manyNumbers()) {
        char text[2 * longestNumber];
        ASSERT_EQ(std::string(text, putDecimal(text, number)), std::to_string(number));
    }
}

std::string microsecondsOf(std::int64_t nanoseconds) {
    std::string text = std::to_string(nanoseconds);
    const std::size_t sign = nanoseconds < 0;
    if (text.size() < sign + 4)
        text.insert(sign, sign + 4 - text.size(), '0');
    return text.insert(text.size() - 3, ".");
}

TEST(TextPut, MicrosecondsHaveThreeDecimals) {
    for (const std::uint64_t number : manyNumbers()) {
        const auto nanoseconds = static_cast<std::int64_t>(number);
        char text[2 * longestNumber];
        ASSERT_EQ(std::string(text, putMicroseconds(text, nanoseconds)),
                  microsecondsOf(nanoseconds));
    }
}

TEST(TextPut, TimesNearThoseBeforeThemAreTheSame) {
    NearMicroseconds times;
    for (const std::uint64_t number : manyNumbers()) {
        for (const std::int64_t apart : {0, 1, 999, 1'000, 999'999, 1'000'000, -1, -1'000'000}) {
            const auto nanoseconds =
                static_cast<std::int64_t>(number + static_cast<std::uint64_t>(apart));
            char text[2 * longestNumber];
            ASSERT_EQ(std::string(text, times.put(text, nanoseconds)), microsecondsOf(nanoseconds));
        }
    }
}

}  // namespace
}  // namespace instrument::detail
