// Lines formatted as the standard library does it.
#include "vantrace/instrument/line_format.hpp"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <string>

namespace {

struct Formatted {
    int length;
    std::string text;
    bool operator==(const Formatted&) const = default;
};

std::ostream& operator<<(std::ostream& stream, const Formatted& formatted) {
    return stream << formatted.length << ": " << formatted.text;
}

constexpr std::size_t size = 24;

[[gnu::format(printf, 1, 2)]] Formatted byUs(const char* format, ...) {
    char line[size];
    std::va_list arguments;
    va_start(arguments, format);
    const int length = vantrace::formatLine(line, sizeof line, format, arguments);
    va_end(arguments);
    return {length, line};
}

[[gnu::format(printf, 1, 2)]] Formatted byTheLibrary(const char* format, ...) {
    char line[size];
    std::va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    return {length, line};
}

#define EXPECT_SAME(...) EXPECT_EQ(byUs(__VA_ARGS__), byTheLibrary(__VA_ARGS__))

TEST(FormatLine, PutsTextsAndNumbersAsTheLibraryDoes) {
    EXPECT_SAME("plain");
    EXPECT_SAME("100%%");
    EXPECT_SAME("%s=%llu;", "n", 7ull);
    EXPECT_SAME("%llu", ULLONG_MAX);
    EXPECT_SAME("%lld", LLONG_MIN);
    EXPECT_SAME("%s", "");
}

TEST(FormatLine, PadsToWidths) {
    EXPECT_SAME("[%6llu,%-6lld]", 42ull, -42ll);
    EXPECT_SAME("[%-8s] [%8s]", "name", "name");
    EXPECT_SAME("[%2s%-2llu]", "longer", 12345ull);
}

TEST(FormatLine, CutsWhatHasNoRoomAndTellsTheWholeLength) {
    EXPECT_SAME("%s", "twenty-three characters");
    EXPECT_SAME("%s", "twenty-four characters..");
    EXPECT_SAME("%-60s;", "padded");
    EXPECT_SAME("%60llu;", 1ull);
}

TEST(FormatLine, LeavesOtherConversionsToTheLibrary) {
    EXPECT_SAME("%llu %d %.2f", 1ull, 2, 3.0);
    EXPECT_SAME("%08llu|%+lld", 5ull, 5ll);
    EXPECT_SAME("%.3s|%c", "shortened", 'c');
    EXPECT_SAME("%-d|", 3);
}

}  // namespace
