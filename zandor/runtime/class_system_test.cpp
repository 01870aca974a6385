#include "zandor/runtime/class_system.hpp"

#include <gtest/gtest.h>

#include <barrier>
#include <cstring>
#include <thread>
#include <vector>

#include "zandor/runtime/factory.hpp"
#include "zandor/runtime/testing/live_arrays.hpp"
#include "zandor/runtime/testing/published.hpp"

namespace {

using kobs::COSMethodInfo;
using kobs::COSNamespaceInfo;
using kobs::internal::InternedString;
using kobs::internal::makeInterned;
using zandor::testing::TestMethod;
using zandor::testing::TestNamespace;

/// The entry of the table of virtual functions that a pointer to a virtual member stands for; of
/// the destructor, which has no such pointer, there are two entries.
template <typename Member>
std::size_t slotOf(Member member) {
    std::uintptr_t words[2];
    static_assert(sizeof member == sizeof words);
    std::memcpy(words, &member, sizeof words);
    EXPECT_EQ(words[0] % 2, 1u) << "the member is not virtual";
    EXPECT_EQ(words[1], 0u);
    return words[0] / sizeof(void*);
}

TEST(NamespaceSlots, StandInTheOrderOfTheBinaryInterface) {
    EXPECT_EQ(slotOf(&COSNamespaceInfo::getName), 2u);
    EXPECT_EQ(slotOf(&COSNamespaceInfo::getDescription), 3u);
    EXPECT_EQ(slotOf(&COSNamespaceInfo::getDetailedDescription), 4u);
    EXPECT_EQ(slotOf(&COSNamespaceInfo::attemptToLoadInnerNamespace), 5u);
    EXPECT_EQ(slotOf(&COSNamespaceInfo::attemptToLoadSubPackage), 6u);
    EXPECT_EQ(slotOf(&COSNamespaceInfo::throwErrorForDefinitionOfExistingName), 7u);
    EXPECT_EQ(slotOf(&COSNamespaceInfo::attemptToLoadClass), 8u);
    EXPECT_EQ(slotOf(&COSNamespaceInfo::attemptToLoadFunction), 9u);
    EXPECT_EQ(slotOf(&COSNamespaceInfo::attemptToLoadType), 10u);
    EXPECT_EQ(slotOf(&COSNamespaceInfo::getMethodSelector), 11u);
    EXPECT_EQ(slotOf(&COSNamespaceInfo::populatePackage), 12u);
    EXPECT_EQ(slotOf(&COSNamespaceInfo::initializePackage), 13u);
    EXPECT_EQ(slotOf(&COSNamespaceInfo::isDestructible), 14u);
    EXPECT_EQ(slotOf(&COSNamespaceInfo::isLocked), 15u);
    EXPECT_EQ(slotOf(&COSNamespaceInfo::canLoadDynamicContent), 16u);
}

TEST(MethodSlots, StandInTheOrderOfTheBinaryInterface) {
    EXPECT_EQ(slotOf(&COSMethodInfo::getName), 2u);
    EXPECT_EQ(slotOf(&COSMethodInfo::getDescription), 3u);
    EXPECT_EQ(slotOf(&COSMethodInfo::isLookupScope), 4u);
    EXPECT_EQ(slotOf(&COSMethodInfo::getDetailedDescription), 5u);
    EXPECT_EQ(slotOf(&COSMethodInfo::getMemberAccess), 6u);
    EXPECT_EQ(slotOf(&COSMethodInfo::getExtendedAccess), 7u);
    EXPECT_EQ(slotOf(&COSMethodInfo::getMethodSignature), 8u);
    EXPECT_EQ(slotOf(&COSMethodInfo::invoke), 9u);
    EXPECT_EQ(slotOf(&COSMethodInfo::isFirstArgDispatch), 10u);
    EXPECT_EQ(slotOf(&COSMethodInfo::isStatic), 11u);
    EXPECT_EQ(slotOf(&COSMethodInfo::isAbstract), 12u);
    EXPECT_EQ(slotOf(&COSMethodInfo::isSealed), 13u);
    EXPECT_EQ(slotOf(&COSMethodInfo::isVisible), 14u);
    EXPECT_EQ(slotOf(&COSMethodInfo::isDestructible), 15u);
    EXPECT_EQ(slotOf(&COSMethodInfo::isLocked), 16u);
    EXPECT_EQ(slotOf(&COSMethodInfo::isExplicit), 17u);
    EXPECT_EQ(slotOf(&COSMethodInfo::doesMethodOverrideAllSignatures), 18u);
}

/// What a caller that knows only the slots does.
template <typename Result, typename Object>
Result callSlot(std::size_t slot, Object& object) {
    void** table;
    std::memcpy(&table, static_cast<void*>(&object), sizeof table);
    return reinterpret_cast<Result (*)(Object*)>(table[slot])(&object);
}

TEST(NamespaceSlots, LeadToTheOverridingOperations) {
    bool destroyed = false;
    auto* object = new TestNamespace("slots");
    object->onDestruction = [&] { destroyed = true; };
    COSNamespaceInfo& base = *object;
    EXPECT_STREQ((callSlot<const char*, COSNamespaceInfo>(2, base)), "slots");
    EXPECT_STREQ((callSlot<const char*, COSNamespaceInfo>(4, base)), "described in detail");
    EXPECT_TRUE((callSlot<bool, COSNamespaceInfo>(14, base)));
    callSlot<void, COSNamespaceInfo>(1, base);  // the destructor that also frees
    EXPECT_TRUE(destroyed);
}

TEST(NamespaceDefaults, LoadNothingByThemselves) {
    TestNamespace object("defaults");
    COSNamespaceInfo& base = object;
    alignas(void*) char unused[sizeof(void*)];
    auto& package = reinterpret_cast<kobs::COSPackage&>(unused);
    EXPECT_FALSE(base.attemptToLoadInnerNamespace(package, "x"));
    EXPECT_FALSE(base.attemptToLoadSubPackage(package, "x"));
    EXPECT_FALSE(base.attemptToLoadClass(package, "x"));
    EXPECT_FALSE(base.attemptToLoadFunction(package, "x"));
    EXPECT_FALSE(base.attemptToLoadType(package, "x"));
    EXPECT_EQ(base.getMethodSelector(), nullptr);
    EXPECT_TRUE(base.isDestructible());
    EXPECT_FALSE(base.isLocked());
    EXPECT_FALSE(base.canLoadDynamicContent());
}

TEST(NamespaceDefaults, NameTheExistingNameInTheError) {
    TestNamespace object("taken");
    try {
        object.throwErrorForDefinitionOfExistingName("twice");
    } catch (const kobs::NameExistsError& error) {
        EXPECT_STREQ(error.what(), "\"twice\" exists already in namespace \"taken\"");
    }
}

/// Refuses allocations while it lives.
struct NoMemory {
    NoMemory() {
        kobs::internal::setAllocationGate([](std::size_t) noexcept { return false; });
    }
    ~NoMemory() { kobs::internal::setAllocationGate(nullptr); }
};

TEST(HostAllocation, YieldsNothingWhereTheGateRefuses) {
    const NoMemory refused;
    EXPECT_EQ(new TestNamespace("none"), nullptr);
    EXPECT_EQ(new TestMethod("none", {}, "void", {}), nullptr);
    EXPECT_EQ(COSNamespaceInfo::operator new(64), nullptr);
    EXPECT_EQ(COSMethodInfo::operator new(64), nullptr);
}

TEST(HostAllocation, WorksAgainWithoutTheGate) {
    { const NoMemory refused; }
    const std::unique_ptr<TestNamespace> object(new TestNamespace("some"));
    EXPECT_NE(object, nullptr);
    COSNamespaceInfo::operator delete(nullptr);
    COSMethodInfo::operator delete(nullptr);
}

TEST(InternedTexts, AreTheSameObjectWhereTheyAreEqual) {
    const std::string copy = "interned text";
    EXPECT_EQ(makeInterned("interned text"), makeInterned(copy));
    EXPECT_EQ(makeInterned("interned text").text().data(), makeInterned(copy).text().data());
    EXPECT_NE(makeInterned("interned text"), makeInterned("interned tex"));
    EXPECT_EQ(makeInterned("").text(), "");
    EXPECT_EQ(InternedString().text(), "");
    EXPECT_EQ(makeInterned(std::string_view("a\0b", 3)).text().size(), 3u);
}

TEST(InternedTexts, AreDistinctWhereOneCharacterDiffersInTextsOfAnyLength) {
    for (std::size_t length = 0; length < 40; ++length) {
        const std::string text(length, 'a');
        EXPECT_EQ(makeInterned(text), makeInterned(std::string(text)));
        EXPECT_EQ(makeInterned(text).text(), text);
        for (std::size_t i = 0; i < length; ++i) {
            std::string other = text;
            other[i] = 'b';
            EXPECT_NE(makeInterned(text), makeInterned(other)) << other;
            EXPECT_EQ(makeInterned(other).text(), other);
        }
    }
}

TEST(InternedTexts, AreTheSameObjectForThreadsThatInternThemTogether) {
    constexpr std::size_t threadCount = 4;
    constexpr int count = 500;
    std::vector<std::vector<InternedString>> made(threadCount);
    std::barrier start(threadCount);
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < threadCount; ++t) {
        threads.emplace_back([&, t] {
            start.arrive_and_wait();
            for (int i = 0; i < count; ++i) {
                made[t].push_back(makeInterned("together " + std::to_string(i)));
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    for (std::size_t t = 1; t < threadCount; ++t)
        EXPECT_EQ(made[t], made[0]);
    EXPECT_EQ(made[0][7].text(), "together 7");
}

}  // namespace
