// Tests at two counts: a short form among all other tests, and a long one, which takes minutes and
// is for ./dev test --soak. Under sanitizers the short form does a tenth.
//
//   using ShortThreads = Counted<ThreadTest>;
//   TEST_P(ShortThreads, LeaveNothing) { for (int i = 0; i < count(); ++i) ... }
//   SHORT_AND_SOAK(ShortThreads, 1'000, 100'000);
#pragma once

#include <gtest/gtest.h>

#include <algorithm>

#include "zandor/runtime/sanitizers.hpp"

template <typename Fixture>
class Counted : public Fixture, public testing::WithParamInterface<int> {
  protected:
    static int count() { return testing::WithParamInterface<int>::GetParam(); }
    /// A share of the count, for what takes longer.
    static int countOver(int divisor) { return std::max(count() / divisor, 1); }
};

constexpr int shortCount(int count) {
    return ZANDOR_SANITIZED ? std::max(count / 10, 2) : count;
}

#define SHORT_AND_SOAK(suite, few, many)                                      \
    INSTANTIATE_TEST_SUITE_P(Short, suite, testing::Values(shortCount(few))); \
    INSTANTIATE_TEST_SUITE_P(Soak, suite, testing::Values(many))
