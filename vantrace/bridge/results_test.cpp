#include "vantrace/bridge/results.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "vantrace/testing/cells.hpp"

namespace {

using vantrace::storeResult;
using vantrace::toCell;
using vantrace_testing::arrayOf;
using Strings = std::vector<std::string>;

namespace hx = matrix::hx;

TEST(ScalarResults, LogicalIsOneOrZero) {
    EXPECT_EQ(toCell(true), 1u);
    EXPECT_EQ(toCell(false), 0u);
}

TEST(ScalarResults, Int32IsSignExtended) {
    EXPECT_EQ(toCell(std::int32_t{-2}), 0xfffffffffffffffe);
    EXPECT_EQ(toCell(std::int32_t{7}), 7u);
}

TEST(ScalarResults, Uint64IsTheValue) {
    EXPECT_EQ(toCell(std::uint64_t{1} << 63), kobs::Cell{1} << 63);
}

TEST(ArrayResults, TextIsACharacterArray) {
    const matrix::Array array = arrayOf(toCell(fl::ustring(u"R2026\xd83d\xde00")));
    EXPECT_EQ(hx::hxGetClassId(array.get()), matrix::ClassId::character);
    EXPECT_EQ(hx::hxGetChars(array.get()), u"R2026\xd83d\xde00");
}

TEST(ArrayResults, ListIsAColumnOfText) {
    const matrix::Array array = arrayOf(toCell(Strings{"a", "\xc3\xbc"}));
    EXPECT_EQ(hx::hxGetClassId(array.get()), matrix::ClassId::cell);
    EXPECT_EQ(hx::hxGetRows(array.get()), 2u);
    EXPECT_EQ(hx::hxGetColumns(array.get()), 1u);
    EXPECT_EQ(hx::hxArrayToStdString(hx::hxGetCell(array.get(), 0)), "a");
    EXPECT_EQ(hx::hxArrayToStdString(hx::hxGetCell(array.get(), 1)), "\xc3\xbc");
}

TEST(ArrayResults, EmptyListIsAZeroByOneCellArray) {
    const matrix::Array array = arrayOf(toCell(Strings()));
    EXPECT_EQ(hx::hxGetClassId(array.get()), matrix::ClassId::cell);
    EXPECT_EQ(hx::hxGetRows(array.get()), 0u);
    EXPECT_EQ(hx::hxGetColumns(array.get()), 1u);
}

TEST(ArrayResults, ProxyHandsItsArrayOverAsItIs) {
    hxArray* made = hx::hxCreateDoubleScalar(3);
    const matrix::Array array = arrayOf(toCell(kobs::factory::hxArrayProxy(made)));
    EXPECT_EQ(array.get(), made);
}

TEST(RequestedResults, CountOfZeroIsRaisedToOneAndTheResultDelivered) {
    std::int32_t requested = 0;
    kobs::Cell cell = 99;
    storeResult(true, requested, &cell);
    EXPECT_EQ(requested, 1);
    EXPECT_EQ(cell, 1u);
}

TEST(RequestedResults, NegativeCountStoresNothing) {
    std::int32_t requested = -1;
    kobs::Cell cell = 99;
    storeResult(Strings{"a"}, requested, &cell);
    storeResult(kobs::factory::hxArrayProxy(hx::hxCreateDoubleScalar(3)), requested, &cell);
    EXPECT_EQ(requested, -1);
    EXPECT_EQ(cell, 99u);
}

TEST(RequestedResults, LargerCountIsLeftAndOnlyTheFirstCellWritten) {
    std::int32_t requested = 3;
    kobs::Cell cells[2] = {99, 99};
    storeResult(std::int32_t{5}, requested, cells);
    EXPECT_EQ(requested, 3);
    EXPECT_EQ(cells[0], 5u);
    EXPECT_EQ(cells[1], 99u);
}

}  // namespace
