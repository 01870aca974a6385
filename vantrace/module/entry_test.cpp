// Each of these runs in a process of its own, where the library was not initialised yet.
#include "vantrace/module/entry.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "vantrace/testing/allocation_gate.hpp"
#include "zandor/runtime/zandor.hpp"

namespace {

using vantrace_testing::WatchedAllocation;

/// Ends the process well if `condition` holds.
[[noreturn]] void finish(bool condition) {
    std::exit(condition ? EXIT_SUCCESS : EXIT_FAILURE);
}

class Entry : public testing::Test {
  protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

[[noreturn]] void initialiseTwice() {
    const WatchedAllocation watch(WatchedAllocation::Outcome::allowed);
    ZDInitialize_vantrace();
    ZDInitialize_vantrace();
    finish(zandor::roots().size() == 1 && zandor::lastError().empty() && watch.sizes().size() == 1);
}

[[noreturn]] void initialiseWithoutMemory() {
    {
        const WatchedAllocation watch(WatchedAllocation::Outcome::nothing);
        ZDInitialize_vantrace();
        if (watch.sizes().size() != 1 || zandor::lastError().empty())
            finish(false);
    }
    const WatchedAllocation watch(WatchedAllocation::Outcome::allowed);
    ZDInitialize_vantrace();
    finish(zandor::roots().empty() && watch.sizes().empty());
}

[[noreturn]] void terminate() {
    ZDInitialize_vantrace();
    ZDTerminate_vantrace();
    const auto method = zandor::resolve("performance.instrument.controls.wereAllEnabled");
    finish(zandor::roots().size() == 1 && !method().asLogical());
}

TEST_F(Entry, InitialisingTwicePublishesTheTreeOnce) {
    EXPECT_EXIT(initialiseTwice(), testing::ExitedWithCode(EXIT_SUCCESS), "");
}

TEST_F(Entry, AllocationThatYieldsNothingPublishesNothingAndIsNotRetried) {
    EXPECT_EXIT(initialiseWithoutMemory(), testing::ExitedWithCode(EXIT_SUCCESS), "");
}

TEST_F(Entry, TerminatingLeavesTheTreePublished) {
    EXPECT_EXIT(terminate(), testing::ExitedWithCode(EXIT_SUCCESS), "");
}

}  // namespace
