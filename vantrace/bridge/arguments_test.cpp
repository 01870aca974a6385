#include "vantrace/bridge/arguments.hpp"

#include <gtest/gtest.h>

#include <bit>
#include <limits>
#include <string>
#include <vector>

#include "vantrace/testing/cells.hpp"

namespace {

using vantrace::fromCell;
using vantrace_testing::cellArray;
using vantrace_testing::cellOf;
using vantrace_testing::number;
using vantrace_testing::stringArray;
using vantrace_testing::text;
using Strings = std::vector<std::string>;

Strings listFrom(const matrix::Array& array) {
    return fromCell<Strings>(cellOf(array));
}

std::string errorFrom(const matrix::Array& array) {
    try {
        listFrom(array);
    } catch (const kobs::factory::HostTypeError& error) {
        return error.what();
    }
    return "no error";
}

std::string reportOfString(std::size_t index) {
    try {
        kobs::factory::errorMustBeString(index);
    } catch (const kobs::factory::HostTypeError& error) {
        return error.what();
    }
}

TEST(ScalarArguments, LogicalIsTrueForAnyWordThatIsNotZero) {
    EXPECT_FALSE(fromCell<bool>(0));
    EXPECT_TRUE(fromCell<bool>(1));
    EXPECT_TRUE(fromCell<bool>(kobs::Cell{1} << 63));
}

TEST(ScalarArguments, Int32IsTheLowHalfOfTheWordSigned) {
    EXPECT_EQ(fromCell<std::int32_t>(0xdeadbeef00000007), 7);
    EXPECT_EQ(fromCell<std::int32_t>(0x00000000ffffffff), -1);
    EXPECT_EQ(fromCell<std::int32_t>(0x80000000), std::numeric_limits<std::int32_t>::min());
}

TEST(ScalarArguments, Uint64IsTheWord) {
    EXPECT_EQ(fromCell<std::uint64_t>(0xfedcba9876543210), 0xfedcba9876543210);
}

TEST(ScalarArguments, DoubleIsTheBitsOfTheWord) {
    EXPECT_EQ(fromCell<double>(std::bit_cast<kobs::Cell>(-0.25)), -0.25);
}

TEST(TextArguments, CharBecomesUtf8) {
    const matrix::Array array = matrix::create(
        "gr\xc3\xb6\xc3\x9f"
        "er");
    EXPECT_EQ(fromCell<std::string>(cellOf(array)),
              "gr\xc3\xb6\xc3\x9f"
              "er");
}

TEST(TextArguments, CharRefusesWhatIsNotText) {
    const matrix::Array array(number(1));
    EXPECT_THROW(fromCell<std::string>(cellOf(array)), kobs::factory::HostTypeError);
    EXPECT_THROW(fromCell<std::string>(0), kobs::factory::HostTypeError);
}

TEST(TextArguments, Utf16TextKeepsItsUnits) {
    const matrix::Array array(matrix::hx::hxCreateString_UTF16(u"a\xd83d\xde00"));
    EXPECT_EQ(fromCell<fl::ustring>(cellOf(array)), u"a\xd83d\xde00");
}

TEST(TextArguments, CharHolderGivesTheTextAndNoneWhereThereIsNone) {
    const matrix::Array array = matrix::create("lib.so");
    const matrix::Array illFormed(matrix::hx::hxCreateString_UTF16(u"\xd800"));
    EXPECT_STREQ(kobs::factory::CharHolder(array.get()).get(), "lib.so");
    EXPECT_EQ(kobs::factory::CharHolder(illFormed.get()).get(), nullptr);
    EXPECT_EQ(kobs::factory::CharHolder(nullptr).get(), nullptr);
}

TEST(ListArguments, NoArrayIsTheEmptyList) {
    EXPECT_EQ(fromCell<Strings>(0), Strings());
}

TEST(ListArguments, StringArrayIsSplitInOrder) {
    EXPECT_EQ(listFrom(stringArray({u"n", u"3", u"", u"\x00fc"})),
              (Strings{"n", "3", "", "\xc3\xbc"}));
    EXPECT_EQ(listFrom(stringArray({})), Strings());
}

TEST(ListArguments, CellArrayOfTextIsTakenInOrder) {
    EXPECT_EQ(listFrom(cellArray({text("n"), text("3"), text("")})), (Strings{"n", "3", ""}));
    EXPECT_EQ(listFrom(cellArray({})), Strings());
}

TEST(ListArguments, AnotherClassIsRefusedAsNoCellArray) {
    EXPECT_THROW(listFrom(matrix::create("name")), kobs::factory::HostTypeError);
    EXPECT_THROW(listFrom(matrix::Array(number(1))), kobs::factory::HostTypeError);
}

TEST(ListArguments, ElementThatIsNoTextIsNamedByItsZeroBasedIndex) {
    EXPECT_EQ(errorFrom(cellArray({text("n"), number(3)})), reportOfString(1));
    EXPECT_EQ(errorFrom(cellArray({number(3), text("n")})), reportOfString(0));
    EXPECT_NE(reportOfString(0), reportOfString(1));
}

TEST(ListArguments, AbsentElementIsNamedByItsZeroBasedIndex) {
    EXPECT_EQ(errorFrom(cellArray({text("n"), text("3"), nullptr})), reportOfString(2));
}

TEST(ListArguments, CellElementWithoutUtf8TextIsLeftOut) {
    hxArray* illFormed = matrix::hx::hxCreateString_UTF16(u"\xdc00");
    EXPECT_EQ(listFrom(cellArray({text("a"), illFormed, text("b")})), (Strings{"a", "b"}));
}

}  // namespace
