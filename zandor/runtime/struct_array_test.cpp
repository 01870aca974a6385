#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "zandor/runtime/array.hpp"
#include "zandor/runtime/factory.hpp"
#include "zandor/runtime/testing/live_arrays.hpp"

namespace {

using kobs::factory::HostTypeError;
using matrix::Array;
using matrix::detail::do_create_struct;
namespace hx = matrix::hx;

Array create(std::size_t rows, std::size_t columns, const std::vector<std::string>& names) {
    std::vector<const char*> pointers;
    for (const std::string& name : names)
        pointers.push_back(name.c_str());
    return do_create_struct(rows, columns, pointers);
}

std::vector<std::string> namesOf(const Array& structure) {
    std::vector<std::string> names;
    for (std::size_t field = 0; field < hx::hxGetFieldCount(structure.get()); ++field) {
        names.emplace_back(hx::hxGetFieldName(structure.get(), field));
    }
    return names;
}

hxArray* text(const std::string& utf8) {
    return matrix::create(utf8).release();
}

std::string textAt(const Array& structure, std::size_t index, const char* name) {
    return hx::hxArrayToStdString(hx::hxGetField(structure.get(), index, name));
}

std::vector<std::string> manyNames(std::size_t count) {
    std::vector<std::string> names;
    for (std::size_t i = 0; i < count; ++i)
        names.push_back("field" + std::to_string(i));
    return names;
}

using Names = std::vector<std::string>;

TEST(StructArrays, KeepTheirShapeAndFieldsWithoutElements) {
    const Array structure = create(1, 0, {"name", "count"});
    EXPECT_EQ(hx::hxGetRows(structure.get()), 1u);
    EXPECT_EQ(hx::hxGetColumns(structure.get()), 0u);
    EXPECT_EQ(namesOf(structure), (Names{"name", "count"}));
}

TEST(StructArrays, MayHaveNoFields) {
    const Array structure = create(0, 0, {});
    EXPECT_EQ(hx::hxGetFieldCount(structure.get()), 0u);
    EXPECT_EQ(hx::hxGetFieldNumber(structure.get(), "name"), -1);
}

TEST(StructArrays, BeginWithAbsentValues) {
    const Array structure = create(1, 2, {"name"});
    EXPECT_EQ(hx::hxGetField(structure.get(), 1, "name"), nullptr);
}

TEST(StructArrays, KeepOneValueForEachElementAndField) {
    const Array structure = create(1, 3, {"a", "b"});
    for (std::size_t i = 0; i < 3; ++i) {
        hx::hxSetField(structure.get(), i, "a", text("a" + std::to_string(i)));
        hx::hxSetField(structure.get(), i, "b", text("b" + std::to_string(i)));
    }
    EXPECT_EQ(textAt(structure, 0, "a"), "a0");
    EXPECT_EQ(textAt(structure, 2, "a"), "a2");
    EXPECT_EQ(textAt(structure, 1, "b"), "b1");
    EXPECT_EQ(hx::hxGetFieldByNumber(structure.get(), 2, 1),
              hx::hxGetField(structure.get(), 2, "b"));
}

TEST(StructArrays, DestroyTheValueThatIsReplaced) {
    const std::size_t before = matrix::liveArrayCount();
    const Array structure = create(1, 1, {"a"});
    hx::hxSetField(structure.get(), 0, "a", text("old"));
    hx::hxSetField(structure.get(), 0, "a", text("new"));
    EXPECT_EQ(matrix::liveArrayCount(), before + 2);
    EXPECT_EQ(textAt(structure, 0, "a"), "new");
}

TEST(StructArrays, ConsumeTheValueOfAFailedStore) {
    const std::size_t before = matrix::liveArrayCount();
    const Array structure = create(1, 1, {"a"});
    const Array cell = matrix::detail::do_create_cell(1, 1);
    EXPECT_THROW(hx::hxSetField(structure.get(), 1, "a", text("x")), std::out_of_range);
    EXPECT_THROW(hx::hxSetField(structure.get(), 0, "b", text("x")), std::out_of_range);
    EXPECT_THROW(hx::hxSetField(structure.get(), 0, nullptr, text("x")), std::out_of_range);
    EXPECT_THROW(hx::hxSetField(cell.get(), 0, "a", text("x")), HostTypeError);
    EXPECT_EQ(matrix::liveArrayCount(), before + 2);
}

TEST(StructArrays, CheckIndexNameNumberAndClass) {
    const Array structure = create(1, 1, {"a"});
    EXPECT_THROW(hx::hxGetField(structure.get(), 1, "a"), std::out_of_range);
    EXPECT_THROW(hx::hxGetField(structure.get(), 0, "b"), std::out_of_range);
    EXPECT_THROW(hx::hxGetFieldByNumber(structure.get(), 0, 1), std::out_of_range);
    EXPECT_THROW(hx::hxGetFieldByNumber(structure.get(), 1, 0), std::out_of_range);
    EXPECT_THROW(hx::hxGetFieldName(structure.get(), 1), std::out_of_range);
    const Array number(hx::hxCreateDoubleScalar(1));
    EXPECT_THROW(hx::hxGetField(number.get(), 0, "a"), HostTypeError);
    EXPECT_THROW(hx::hxGetFieldCount(number.get()), HostTypeError);
    EXPECT_THROW(hx::hxGetFieldName(number.get(), 0), HostTypeError);
    EXPECT_THROW(hx::hxGetFieldNumber(number.get(), "a"), HostTypeError);
}

TEST(FieldNames, AreCopied) {
    std::string name = "before";
    const Array structure = create(1, 1, {name});
    name = "after_";
    EXPECT_EQ(namesOf(structure), Names{"before"});
}

TEST(FieldNames, ThatOccurAgainAreMadeUnique) {
    EXPECT_EQ(namesOf(create(1, 1, {"name", "name"})), (Names{"name", "name_2"}));
    EXPECT_EQ(namesOf(create(1, 1, {"a", "a", "b", "a"})), (Names{"a", "a_2", "b", "a_3"}));
    EXPECT_EQ(namesOf(create(1, 1, {"", ""})), (Names{"", "_2"}));
}

TEST(FieldNames, ThatWereGivenOnceStayAsTheyAre) {
    EXPECT_EQ(namesOf(create(1, 1, {"a", "a", "a_2"})), (Names{"a", "a_3", "a_2"}));
}

TEST(FieldNames, MustBeThere) {
    const char* const names[] = {"a", nullptr};
    EXPECT_THROW(do_create_struct(1, 1, names), std::invalid_argument);
}

TEST(FieldLookup, FindsEveryNameByTextAndByPointer) {
    for (const std::size_t count : {1u, 8u, 9u, 200u}) {
        const Names names = manyNames(count);
        const Array structure = create(1, 1, names);
        for (std::size_t field = 0; field < count; ++field) {
            const char* own = hx::hxGetFieldName(structure.get(), field);
            hx::hxSetField(structure.get(), 0, own, text(names[field]));
            EXPECT_EQ(textAt(structure, 0, names[field].c_str()), names[field]);
            EXPECT_EQ(hx::hxGetFieldNumber(structure.get(), names[field]),
                      static_cast<std::ptrdiff_t>(field));
        }
        EXPECT_EQ(hx::hxGetFieldNumber(structure.get(), "field"), -1);
    }
}

TEST(FieldLookup, TakesAPointerIntoTheMiddleOfANameAsText) {
    const Array structure = create(1, 1, {"xname", "name"});
    const char* middle = hx::hxGetFieldName(structure.get(), 0) + 1;
    hx::hxSetField(structure.get(), 0, middle, text("second"));
    EXPECT_EQ(textAt(structure, 0, "name"), "second");
    EXPECT_EQ(hx::hxGetField(structure.get(), 0, "xname"), nullptr);
    EXPECT_THROW(hx::hxGetField(structure.get(), 0, middle + 1), std::out_of_range);
}

TEST(FieldLookup, TakesAPointerOfAnotherArrayAsText) {
    const Array one = create(1, 1, {"a", "b"});
    const Array other = create(1, 1, {"b", "a"});
    hx::hxSetField(other.get(), 0, hx::hxGetFieldName(one.get(), 0), text("of a"));
    EXPECT_EQ(textAt(other, 0, "a"), "of a");
}

TEST(FieldTables, AreSharedByArraysOfTheSameNames) {
    const Array one = create(1, 1, {"n", "tol"});
    const Array two = create(1, 5, {"n", "tol"});
    const Array three = create(1, 1, {"n"});
    EXPECT_EQ(hx::hxGetFieldName(one.get(), 1), hx::hxGetFieldName(two.get(), 1));
    EXPECT_NE(hx::hxGetFieldName(one.get(), 0), hx::hxGetFieldName(three.get(), 0));
}

TEST(FieldTables, OutliveTheThreadThatMadeThem) {
    Array structure;
    std::thread([&] { structure = create(1, 1, {"made", "elsewhere"}); }).join();
    hx::hxSetField(structure.get(), 0, "elsewhere", text("here"));
    EXPECT_EQ(namesOf(structure), (Names{"made", "elsewhere"}));
}

}  // namespace
