// Checks for every test of a program that it ends with as many host arrays as it began with.
// Including this header is enough.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>

#include "zandor/runtime/array.hpp"

namespace zandor::testing {

/// Fails the test that left an array behind, or destroyed one that it did not make.
class LiveArrayCheck : public ::testing::EmptyTestEventListener {
  public:
    void OnTestStart(const ::testing::TestInfo&) override { before_ = matrix::liveArrayCount(); }
    void OnTestEnd(const ::testing::TestInfo&) override {
        EXPECT_EQ(matrix::liveArrayCount(), before_) << "host arrays leaked";
    }

  private:
    std::size_t before_ = 0;
};

inline const bool liveArraysAreChecked = [] {
    // The framework takes the listener over.
    ::testing::UnitTest::GetInstance()->listeners().Append(new LiveArrayCheck);
    return true;
}();

}  // namespace zandor::testing
