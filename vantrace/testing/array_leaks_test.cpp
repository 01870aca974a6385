// Every test of this executable ends with as many host arrays as it began with.
#include <gtest/gtest.h>

#include <cstddef>

#include "zandor/runtime/array.hpp"

namespace {

class ArrayLeaks : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo&) override { before_ = matrix::liveArrayCount(); }
    void OnTestEnd(const testing::TestInfo&) override {
        EXPECT_EQ(matrix::liveArrayCount(), before_) << "host arrays leaked";
    }

    std::size_t before_ = 0;
};

[[maybe_unused]] const bool watching = [] {
    testing::UnitTest::GetInstance()->listeners().Append(new ArrayLeaks);
    return true;
}();

}  // namespace
