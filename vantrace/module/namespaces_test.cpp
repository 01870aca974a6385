#include "vantrace/module/namespaces.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "vantrace/testing/allocation_gate.hpp"
#include "vantrace/testing/virtual_slots.hpp"
#include "zandor/runtime/zandor.hpp"

namespace {

using vantrace_testing::entryIn;
using vantrace_testing::slotOf;
using vantrace_testing::WatchedAllocation;

template <typename Class>
class EachNamespace : public testing::Test {};

using AllNamespaces =
    testing::Types<vantrace::PerformanceNamespace, vantrace::UtilsNamespace,
                   vantrace::InstrumentNamespace, vantrace::TaskManNamespace,
                   vantrace::ProductStatsNamespace, vantrace::InstrumentsNamespace,
                   vantrace::ControlsNamespace, vantrace::RecorderNamespace,
                   vantrace::ProfilerNamespace, vantrace::CounterNamespace,
                   vantrace::ExternalEventsAggregatorNamespace, vantrace::LoggerNamespace>;
TYPED_TEST_SUITE(EachNamespace, AllNamespaces);

/// A namespace that overrides only what it must.
struct Bare : kobs::COSNamespaceInfo {
    const char* getName() const override { return ""; }
    const char* getDescription() const override { return ""; }
    const char* getDetailedDescription() const override { return ""; }
    void populatePackage(kobs::COSPackage&) override {}
};

TEST(Slots, OfNamespacesStandInTheirOrder) {
    using Info = kobs::COSNamespaceInfo;
    const std::size_t slots[] = {
        slotOf(&Info::getName),
        slotOf(&Info::getDescription),
        slotOf(&Info::getDetailedDescription),
        slotOf(&Info::attemptToLoadInnerNamespace),
        slotOf(&Info::attemptToLoadSubPackage),
        slotOf(&Info::throwErrorForDefinitionOfExistingName),
        slotOf(&Info::attemptToLoadClass),
        slotOf(&Info::attemptToLoadFunction),
        slotOf(&Info::attemptToLoadType),
        slotOf(&Info::getMethodSelector),
        slotOf(&Info::populatePackage),
        slotOf(&Info::initializePackage),
        slotOf(&Info::isDestructible),
        slotOf(&Info::isLocked),
        slotOf(&Info::canLoadDynamicContent),
    };
    std::size_t expected = 2;  // behind the two entries of the destructor
    for (const std::size_t slot : slots)
        EXPECT_EQ(slot, expected++);
}

TYPED_TEST(EachNamespace, OverridesItsOwnOperationsAndInheritsTheOthers) {
    using Info = kobs::COSNamespaceInfo;
    const std::size_t own[] = {slotOf(&Info::getName), slotOf(&Info::getDescription),
                               slotOf(&Info::getDetailedDescription),
                               slotOf(&Info::populatePackage)};
    const TypeParam published;
    const Bare bare;
    for (std::size_t slot = 2; slot <= slotOf(&Info::canLoadDynamicContent); ++slot) {
        const bool inherited = std::ranges::find(own, slot) == std::end(own);
        EXPECT_EQ(entryIn(&published, slot) == entryIn(&bare, slot), inherited) << slot;
    }
}

TYPED_TEST(EachNamespace, HoldsNoDataOfItsOwn) {
    EXPECT_EQ(sizeof(TypeParam), sizeof(kobs::COSNamespaceInfo));
}

TYPED_TEST(EachNamespace, DetailedDescriptionIsWhateverTheDescriptionIs) {
    struct Renamed : TypeParam {
        const char* getDescription() const override { return "another description"; }
    };
    const TypeParam published;
    EXPECT_STREQ(published.getDetailedDescription(), published.getDescription());
    EXPECT_STREQ(Renamed().getDetailedDescription(), "another description");
}

/// The class under a root name of the test's own, so that it is populated afresh.
template <typename Class>
class Rooted : public Class {
  public:
    explicit Rooted(const char* name) : name_(name) {}
    const char* getName() const override { return name_; }

  private:
    const char* name_;
};

template <typename Class>
zandor::Namespace publishedAs(const char* name) {
    kobs::COSPackage::addNamespace(new Rooted<Class>(name));
    return zandor::findRoot(name);
}

TEST(Population, RegistersTheChildrenBeforeTheMethods) {
    const zandor::Namespace root = publishedAs<vantrace::InstrumentNamespace>("order");
    const WatchedAllocation watch(WatchedAllocation::Outcome::allowed);
    EXPECT_EQ(root.namespaces().size(), 7u);
    EXPECT_EQ(root.methods().size(), 2u);
    ASSERT_EQ(watch.sizes().size(), 9u);
    const auto firstMethod = std::ranges::find_if(
        watch.sizes(), [](std::size_t size) { return size >= sizeof(kobs::factory::KobsMethod); });
    EXPECT_EQ(firstMethod - watch.sizes().begin(), 7);
}

TEST(Population, HappensAtTheFirstNeedAndNotBefore) {
    const WatchedAllocation watch(WatchedAllocation::Outcome::allowed);
    const zandor::Namespace root = publishedAs<vantrace::PerformanceNamespace>("lazy");
    const std::size_t published = watch.sizes().size();
    EXPECT_EQ(root.description(), "Performance Utils and Diagnostics");
    EXPECT_EQ(watch.sizes().size(), published);
    root.namespaces();
    EXPECT_EQ(watch.sizes().size(), published + 4);
}

TEST(Population, AllocationsThatYieldNothingArePassedOnAsNoObjects) {
    const zandor::Namespace root = publishedAs<vantrace::InstrumentNamespace>("nothing");
    zandor::clearLastError();
    const WatchedAllocation watch(WatchedAllocation::Outcome::nothing);
    EXPECT_TRUE(root.namespaces().empty());
    EXPECT_TRUE(root.methods().empty());
    EXPECT_EQ(watch.sizes().size(), 9u) << "a refused object ends the population";
    EXPECT_NE(zandor::lastError(), "");
    zandor::clearLastError();
}

/// Defines a name first that the class defines as well.
template <typename Class, typename Child>
class Occupied : public Rooted<Class> {
  public:
    using Rooted<Class>::Rooted;
    void populatePackage(kobs::COSPackage& package) override {
        package.addChildNamespace(new Child);
        Class::populatePackage(package);
    }
};

TEST(Population, ErrorOfTheHostPassesThrough) {
    kobs::COSPackage::addNamespace(
        new Occupied<vantrace::InstrumentNamespace, vantrace::RecorderNamespace>("occupied"));
    const zandor::Namespace root = zandor::findRoot("occupied");
    EXPECT_THROW(root.namespaces(), kobs::NameExistsError);
    EXPECT_THROW(root.methods(), kobs::NameExistsError);
}

}  // namespace
