#include "zandor/runtime/array.hpp"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <barrier>
#include <cmath>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <thread>
#include <vector>

#include "zandor/runtime/factory.hpp"
#include "zandor/runtime/sanitizers.hpp"
#include "zandor/runtime/testing/live_arrays.hpp"

namespace {

using kobs::factory::HostTypeError;
using matrix::Array;
using matrix::ClassId;
using matrix::detail::do_create_cell;
using matrix::detail::do_create_struct;
using matrix::detail::do_create_uninitnumeric;
namespace hx = matrix::hx;

constexpr std::size_t huge = std::numeric_limits<std::size_t>::max();

template <typename T>
T scalarOf(const hxArray* array) {
    T value;
    std::memcpy(&value, hx::hxGetData(array), sizeof value);
    return value;
}

Array number(double value) {
    return Array(hx::hxCreateDoubleScalar(value));
}

TEST(ArrayScalars, HoldTheirValueAsOneElement) {
    const Array real = number(1.5);
    const Array logical(hx::hxCreateLogicalScalar(true));
    const Array int32(hx::hxCreateInt32Scalar(-7));
    const Array uint64(hx::hxCreateUint64Scalar(huge));
    EXPECT_EQ(scalarOf<double>(real.get()), 1.5);
    EXPECT_EQ(scalarOf<bool>(logical.get()), true);
    EXPECT_EQ(scalarOf<std::int32_t>(int32.get()), -7);
    EXPECT_EQ(scalarOf<std::uint64_t>(uint64.get()), huge);
    for (const Array* each : {&real, &logical, &int32, &uint64}) {
        EXPECT_EQ(hx::hxGetRows(each->get()), 1u);
        EXPECT_EQ(hx::hxGetColumns(each->get()), 1u);
    }
}

TEST(ArrayClasses, HaveTheirNumbersAndNames) {
    EXPECT_EQ(static_cast<int>(ClassId::uint64), 15);
    const std::pair<Array, const char*> all[] = {
        {do_create_cell(1, 1), "cell"},
        {do_create_struct(1, 1, {}), "struct"},
        {Array(hx::hxCreateLogicalScalar(false)), "logical"},
        {matrix::create("x"), "char"},
        {number(0), "double"},
        {Array(hx::hxCreateInt32Scalar(0)), "int32"},
        {Array(hx::hxCreateUint64Scalar(0)), "uint64"},
        {Array(hx::hxCreateStringArray(1, 1)), "string"},
    };
    for (const auto& [array, name] : all) {
        EXPECT_STREQ(hx::hxGetClassName(hx::hxGetClassId(array.get())), name);
    }
}

TEST(NumericArrays, HaveRoomForEachElement) {
    for (const ClassId classId :
         {ClassId::logical, ClassId::real, ClassId::int32, ClassId::uint64}) {
        const Array array = do_create_uninitnumeric(classId, 3, 5);
        EXPECT_EQ(hx::hxGetElementCount(array.get()), 15u);
        const std::size_t size = classId == ClassId::logical ? 1
                                 : classId == ClassId::int32 ? 4
                                                             : 8;
        std::memset(hx::hxGetData(array.get()), 1, 15 * size);
    }
}

TEST(NumericArrays, MayHaveNoElements) {
    const Array array = do_create_uninitnumeric(ClassId::real, 0, 7);
    EXPECT_EQ(hx::hxGetRows(array.get()), 0u);
    EXPECT_EQ(hx::hxGetColumns(array.get()), 7u);
    EXPECT_EQ(hx::hxGetElementCount(array.get()), 0u);
}

TEST(NumericArrays, AreOfNumericClassesOnly) {
    for (const ClassId classId :
         {ClassId::cell, ClassId::structure, ClassId::character, ClassId::string}) {
        EXPECT_THROW(do_create_uninitnumeric(classId, 1, 1), std::invalid_argument);
    }
}

TEST(ArraySizes, BeyondMemoryAreLengthErrors) {
    const char* const names[] = {"a", "b"};
    EXPECT_THROW(do_create_uninitnumeric(ClassId::real, huge, 1), std::length_error);
    EXPECT_THROW(do_create_uninitnumeric(ClassId::logical, huge, huge), std::length_error);
    EXPECT_THROW(do_create_uninitnumeric(ClassId::logical, huge, 1), std::length_error);
    EXPECT_THROW(do_create_uninitnumeric(ClassId::logical, huge / 2, 1), std::length_error);
    EXPECT_THROW(do_create_cell(huge / 2, 3), std::length_error);
    EXPECT_THROW(do_create_cell(huge / 8, 1), std::length_error);
    EXPECT_THROW(do_create_struct(1, huge / 8, names), std::length_error);
    EXPECT_THROW(do_create_struct(huge, 2, {}), std::length_error);
    EXPECT_THROW(do_create_struct(1, huge / 16, names), std::length_error);
    EXPECT_THROW(hx::hxCreateStringArray(huge / 16, 1), std::length_error);
}

#if !ZANDOR_SANITIZED  // a sanitizer ends the program for such a request
TEST(ArraySizes, BeyondWhatTheSystemGivesAreBadAlloc) {
    EXPECT_THROW(do_create_uninitnumeric(ClassId::logical, huge / 4, 1), std::bad_alloc);
}
#endif

TEST(CellArrays, BeginWithAbsentElements) {
    const Array cell = do_create_cell(2, 2);
    for (std::size_t i = 0; i < 4; ++i)
        EXPECT_EQ(hx::hxGetCell(cell.get(), i), nullptr);
}

TEST(CellArrays, OwnWhatIsStoredAndDestroyWhatItReplaces) {
    const std::size_t before = matrix::liveArrayCount();
    {
        const Array cell(hx::hxCreateCellMatrix(1, 2));
        hx::hxSetCell(cell.get(), 1, number(1).release());
        EXPECT_EQ(matrix::liveArrayCount(), before + 2);
        hx::hxSetCell(cell.get(), 1, number(2).release());
        EXPECT_EQ(matrix::liveArrayCount(), before + 2);
        EXPECT_EQ(scalarOf<double>(hx::hxGetCell(cell.get(), 1)), 2);
        hx::hxSetCell(cell.get(), 1, nullptr);
        EXPECT_EQ(matrix::liveArrayCount(), before + 1);
        hx::hxSetCell(cell.get(), 0, number(3).release());
    }
    EXPECT_EQ(matrix::liveArrayCount(), before);
}

TEST(CellArrays, KeepAnElementThatIsStoredAgain) {
    const Array cell = do_create_cell(1, 1);
    hxArray* element = number(4).release();
    hx::hxSetCell(cell.get(), 0, element);
    hx::hxSetCell(cell.get(), 0, element);
    EXPECT_EQ(scalarOf<double>(hx::hxGetCell(cell.get(), 0)), 4);
}

TEST(CellArrays, ConsumeTheValueOfAFailedStore) {
    const std::size_t before = matrix::liveArrayCount();
    const Array cell = do_create_cell(1, 1);
    const Array text = matrix::create("text");
    EXPECT_THROW(hx::hxSetCell(cell.get(), 1, number(1).release()), std::out_of_range);
    EXPECT_THROW(hx::hxSetCell(text.get(), 0, number(1).release()), HostTypeError);
    EXPECT_THROW(hx::hxSetCell(nullptr, 0, number(1).release()), HostTypeError);
    EXPECT_EQ(matrix::liveArrayCount(), before + 2);
}

TEST(CellArrays, CheckIndexAndClass) {
    const Array cell = do_create_cell(0, 1);
    EXPECT_THROW(hx::hxGetCell(cell.get(), 0), std::out_of_range);
    const Array text = matrix::create("text");
    EXPECT_THROW(hx::hxGetCell(text.get(), 0), HostTypeError);
}

TEST(StringArrays, BeginEmptyAndKeepTheirTexts) {
    const Array strings(hx::hxCreateStringArray(3, 1));
    EXPECT_EQ(hx::hxGetString(strings.get(), 2), u"");
    hx::hxSetString(strings.get(), 2, u"a text that is too long to stand inside a string object");
    EXPECT_EQ(hx::hxGetString(strings.get(), 2),
              u"a text that is too long to stand inside a string object");
    EXPECT_THROW(hx::hxSetString(strings.get(), 3, u"x"), std::out_of_range);
    EXPECT_THROW(hx::hxGetString(strings.get(), 3), std::out_of_range);
    const Array text = matrix::create("text");
    EXPECT_THROW(hx::hxGetString(text.get(), 0), HostTypeError);
    EXPECT_THROW(hx::hxSetString(text.get(), 0, u"x"), HostTypeError);
}

TEST(ArrayElements, HaveNoDataPointerWhereTheyAreArraysOrTexts) {
    const Array cell = do_create_cell(1, 1);
    const Array structure = do_create_struct(1, 1, {});
    const Array strings(hx::hxCreateStringArray(1, 1));
    for (const Array* each : {&cell, &structure, &strings}) {
        EXPECT_EQ(hx::hxGetData(each->get()), nullptr);
    }
}

TEST(DestroyingArrays, AcceptsNothing) {
    matrix::destroyArray(nullptr);
}

TEST(DestroyingArrays, OfAnyDepthNeedsLittleStack) {
    constexpr int depth = 1'000'000;
    const char* const names[] = {"inner", "other"};
    Array outermost = number(0);
    for (int i = 0; i < depth; ++i) {
        Array outer = i % 2 ? do_create_cell(1, 2) : do_create_struct(1, 1, names);
        if (i % 2) {
            hx::hxSetCell(outer.get(), 1, outermost.release());
        } else {
            hx::hxSetField(outer.get(), 0, "inner", outermost.release());
        }
        outermost = std::move(outer);
    }
    // A thread with a small stack would not survive a frame for each level.
    pthread_attr_t attributes;
    ASSERT_EQ(pthread_attr_init(&attributes), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, 256 << 10), 0);
    pthread_t thread;
    const auto destroy = [](void* array) -> void* {
        matrix::destroyArray(static_cast<hxArray*>(array));
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, &attributes, destroy, outermost.release()), 0);
    ASSERT_EQ(pthread_join(thread, nullptr), 0);
    pthread_attr_destroy(&attributes);
}

TEST(DestroyingArrays, OfManyWideLevelsLeavesNothing) {
    Array tree = number(0);
    for (int level = 0; level < 100; ++level) {
        Array cell = do_create_cell(1, 40);
        for (std::size_t i = 0; i < 40; i += 2) {
            hx::hxSetCell(cell.get(), i,
                          i % 4 ? number(1).release() : do_create_cell(2, 2).release());
        }
        hx::hxSetCell(cell.get(), 39, tree.release());
        tree = std::move(cell);
    }
}

TEST(LiveArrays, AreCountedOverAllThreads) {
    const std::size_t before = matrix::liveArrayCount();
    constexpr int threadCount = 4;
    constexpr int each = 1000;
    std::barrier made(threadCount + 1);
    std::barrier counted(threadCount + 1);
    std::vector<std::thread> threads;
    for (int t = 0; t < threadCount; ++t) {
        threads.emplace_back([&] {
            std::vector<Array> own;
            for (int i = 0; i < each; ++i)
                own.push_back(number(i));
            made.arrive_and_wait();
            counted.arrive_and_wait();
        });
    }
    made.arrive_and_wait();
    EXPECT_EQ(matrix::liveArrayCount(), before + threadCount * each);
    counted.arrive_and_wait();
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(matrix::liveArrayCount(), before);
}

}  // namespace
