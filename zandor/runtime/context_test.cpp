#include "zandor/runtime/context.hpp"

#include <gtest/gtest.h>

#include <thread>

#include "zandor/runtime/testing/live_arrays.hpp"

namespace {

using zdutil::contextmgr::BlessedKtxID;
using zdutil::contextmgr::ContextRegistry;
using zdutil::contextmgr::ScopedContext;

TEST(Contexts, AreTheMainOneUnlessTheThreadEnteredAnother) {
    EXPECT_EQ(ContextRegistry::getKtxID(), BlessedKtxID);
    const auto id = ContextRegistry::create();
    {
        const ScopedContext outer(id);
        EXPECT_EQ(ContextRegistry::getKtxID(), id);
        {
            const ScopedContext inner(BlessedKtxID);
            EXPECT_EQ(ContextRegistry::getKtxID(), BlessedKtxID);
        }
        EXPECT_EQ(ContextRegistry::getKtxID(), id);
        std::thread([] { EXPECT_EQ(ContextRegistry::getKtxID(), BlessedKtxID); }).join();
    }
    EXPECT_EQ(ContextRegistry::getKtxID(), BlessedKtxID);
}

TEST(Contexts, HaveIdsOfTheirOwnAndAreCounted) {
    const auto before = ContextRegistry::count();
    const auto one = ContextRegistry::create();
    const auto two = ContextRegistry::create();
    EXPECT_NE(one, two);
    EXPECT_NE(one, BlessedKtxID);
    EXPECT_EQ(ContextRegistry::count(), before + 2);
}

}  // namespace
