// What user programs inline: it must stay where it is.
#include <gtest/gtest.h>

#include <cstddef>
#include <type_traits>

#include "zandor/instrument/controls.hpp"
#include "zandor/instrument/instrument.hpp"
#include "zandor/instrument/listener.hpp"
#include "zandor/instrument/listeners.hpp"

namespace instrument {
namespace {

TEST(Layout, TheGlobalsAreNeverDestroyed) {
    EXPECT_TRUE(std::is_trivially_destructible_v<Controls>);
    EXPECT_TRUE(std::is_trivially_destructible_v<Listeners>);
    EXPECT_TRUE(std::is_trivially_destructible_v<detail::LazyInstrument>);
}

TEST(Layout, TheFlagsThatProgramsReadAreTheFirstBytes) {
    EXPECT_EQ(static_cast<void*>(&controls.allEnabled), static_cast<void*>(&controls));
    EXPECT_EQ(static_cast<void*>(&listeners.anyListenerActive), static_cast<void*>(&listeners));
    EXPECT_EQ(sizeof(Controls), 64u);
    EXPECT_EQ(sizeof(Listeners), 64u);
    EXPECT_EQ(sizeof(std::atomic<bool>), 1u);
}

TEST(Layout, AHandlesMembersStandWhereTheyDid) {
    EXPECT_EQ(sizeof(Opaque), 32u);
    EXPECT_EQ(offsetof(Opaque, name), 0u);
    EXPECT_EQ(offsetof(Opaque, enabled), 8u);
    EXPECT_EQ(offsetof(Opaque, hasContextRules), 9u);
    EXPECT_EQ(offsetof(Opaque, id), 12u);
    EXPECT_EQ(offsetof(Opaque, nameLength), 16u);
    EXPECT_EQ(offsetof(Opaque, place), 24u);
}

TEST(Layout, AScopeHoldsAHandleAnIdentityAndAContext) {
    EXPECT_EQ(sizeof(Scope), 4 * sizeof(void*));
}

/// The place in an object's table of operations; the destructor takes the first two.
template <class Operation>
std::size_t placeOf(Operation operation) {
    static_assert(sizeof operation == 2 * sizeof(std::size_t));
    std::size_t words[2];
    std::memcpy(words, &operation, sizeof words);
    return (words[0] - 1) / sizeof(void*);
}

TEST(Layout, AListenersOperationsFollowTheDestructorInTheirOrder) {
    EXPECT_EQ(placeOf(&InstrumentListener::onInstant), 2u);
    EXPECT_EQ(placeOf(&InstrumentListener::onStart), 3u);
    EXPECT_EQ(placeOf(&InstrumentListener::onStop), 4u);
    EXPECT_EQ(placeOf(&InstrumentListener::onInstantAt), 5u);
    EXPECT_EQ(placeOf(&InstrumentListener::onStartAt), 6u);
    EXPECT_EQ(placeOf(&InstrumentListener::onStopAt), 7u);
}

}  // namespace
}  // namespace instrument
