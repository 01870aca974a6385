#include "zandor/instrument/context.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>

#include "zandor/instrument/event_context.hpp"

namespace instrument {
namespace {

TEST(Context, ANameIsCombinedWithItsContextInOrderOfNames) {
    const ContextSet context{ContextEntry{"tol", "1e-6"}, ContextEntry{"n", "3"}};
    EXPECT_EQ(combineEventNameWithContext("solve", context), "solve [n=3, tol=1e-6]");
    EXPECT_EQ(combineEventNameWithContext("solve", {}), "solve");
    EXPECT_EQ(combineEventNameWithContext("", {ContextEntry{"", ""}}), " [=]");
}

TEST(Context, ASetKeepsTheFirstEntryOfAName) {
    ContextSet context;
    EXPECT_TRUE(context.insert({"n", "1"}).second);
    EXPECT_FALSE(context.insert({"n", "2"}).second);
    EXPECT_EQ(context.begin()->value, "1");
}

TEST(Context, NamesAreOrderedByBytesAndAPrefixComesFirst) {
    const ContextSet context{ContextEntry{"\xff", ""}, ContextEntry{"ab", ""},
                             ContextEntry{"a", ""}, ContextEntry{"B", ""}};
    std::string order;
    for (const ContextEntry& entry : context)
        order.append(entry.name).append(" ");
    EXPECT_EQ(order, "B a ab \xff ");
}

TEST(Context, PointTypesHaveNames) {
    EXPECT_STREQ(getName(EventPointType::start), "start");
    EXPECT_STREQ(getName(EventPointType::stop), "stop");
    EXPECT_STREQ(getName(EventPointType::instant), "instant");
}

TEST(Context, NumbersBecomeTheShortestTextThatGivesThemBack) {
    EXPECT_EQ(toText(3), "3");
    EXPECT_EQ(toText(-3), "-3");
    EXPECT_EQ(toText(std::numeric_limits<std::int64_t>::min()), "-9223372036854775808");
    EXPECT_EQ(toText(std::numeric_limits<std::uint64_t>::max()), "18446744073709551615");
    EXPECT_EQ(toText(0.1), "0.1");
    EXPECT_EQ(std::strtod(toText(1.0 / 3).c_str(), nullptr), 1.0 / 3);
    EXPECT_EQ(std::strtod(toText(std::numeric_limits<double>::denorm_min()).c_str(), nullptr),
              std::numeric_limits<double>::denorm_min());
    EXPECT_EQ(std::strtod(toText(-std::numeric_limits<double>::max()).c_str(), nullptr),
              -std::numeric_limits<double>::max());
    EXPECT_EQ(toText(std::numeric_limits<double>::infinity()), "inf");
}

TEST(Context, TextsAndTruthValuesStandAsTheyAre) {
    EXPECT_EQ(toText("cg"), "cg");
    EXPECT_EQ(toText(std::string("cg")), "cg");
    EXPECT_EQ(toText(std::string_view("a\0b", 3)), std::string("a\0b", 3));
    EXPECT_EQ(toText(true), "true");
    EXPECT_EQ(toText(false), "false");
    EXPECT_EQ(toText(ContextValue()), "");
}

}  // namespace
}  // namespace instrument
