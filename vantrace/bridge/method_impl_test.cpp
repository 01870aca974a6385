#include "vantrace/bridge/method_impl.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "vantrace/testing/cells.hpp"
#include "vantrace/testing/virtual_slots.hpp"

namespace {

using Log = std::vector<std::string>;

Log& theLog() {
    static Log log;
    return log;
}

/// A plain type that tells what happens to it; 13 cannot be converted.
class Probe {
  public:
    explicit Probe(kobs::Cell cell) : name_(std::to_string(cell)) {
        if (cell == 13)
            throw std::runtime_error("13");
        theLog().push_back("convert " + name_);
    }
    ~Probe() { theLog().push_back("destroy " + name_); }
    Probe(const Probe&) = delete;
    Probe& operator=(const Probe&) = delete;

    const std::string& name() const { return name_; }

  private:
    std::string name_;
};

}  // namespace

template <>
Probe vantrace::fromCell<Probe>(kobs::Cell cell) {
    return Probe(cell);
}
template <>
constexpr const char* vantrace::dataTypeName<Probe>() {
    return "probe scalar";
}
template <>
void kobs::factory::impl::validateSelfPointer<Probe>(const Probe& probe) noexcept {
    theLog().push_back("check " + probe.name());
}

namespace {

using kobs::factory::KobsMethod;
using kobs::factory::MethodAttributes;
using kobs::factory::impl::MethodImpl;
using vantrace_testing::cellArray;
using vantrace_testing::cellOf;
using vantrace_testing::entryIn;
using vantrace_testing::Invocation;
using vantrace_testing::number;
using vantrace_testing::slotOf;
using Strings = std::vector<std::string>;

/// The attributes of a method whose first argument is its object.
struct ObjectArgument : MethodAttributes {
    ObjectArgument() : MethodAttributes(objectArgumentBit) {}
};

template <typename Function>
using Owned = std::unique_ptr<MethodImpl<Function>>;

template <typename Function>
Owned<Function> bound(Function* function, const MethodAttributes& attributes = {},
                      vantrace::DataTypes outputs = {}) {
    return Owned<Function>(
        new MethodImpl<Function>("name", attributes, "", function, "", std::move(outputs)));
}

Strings textsOf(const std::vector<kobs::internal::InternedString>& names) {
    Strings texts;
    for (const auto& name : names)
        texts.emplace_back(name.text());
    return texts;
}

template <typename Function>
Strings inputsOf(Function* function) {
    return textsOf(bound(function)->getMethodSignature()->inputs);
}

template <typename Function>
Strings outputsOf(Function* function) {
    return textsOf(bound(function)->getMethodSignature()->outputs);
}

void threeProbes(const Probe& a, const Probe& b, const Probe& c) {
    theLog().push_back("call " + a.name() + " " + b.name() + " " + c.name());
}

bool throwingCall(const Probe&, const Probe&) {
    throw std::logic_error("from inside");
}

class ProbedInvocation : public testing::Test {
  protected:
    void SetUp() override { theLog().clear(); }
};

TEST_F(ProbedInvocation, ConvertsAndChecksLastToFirstAndDestroysInReverse) {
    const auto method = bound(threeProbes);
    Invocation(*method, {1, 2, 3});
    EXPECT_EQ(theLog(), (Log{"convert 3", "convert 2", "convert 1", "check 3", "check 2", "check 1",
                             "call 1 2 3", "destroy 1", "destroy 2", "destroy 3"}));
}

TEST_F(ProbedInvocation, ChecksTheObjectBeforeAllArguments) {
    const auto method = bound(threeProbes, ObjectArgument());
    Invocation(*method, {1, 2, 3});
    const Log checks(theLog().begin() + 3, theLog().begin() + 7);
    EXPECT_EQ(checks, (Log{"check 1", "check 3", "check 2", "check 1"}));
}

TEST_F(ProbedInvocation, ConversionThatThrowsInTheMiddleDestroysTheLaterArguments) {
    const auto method = bound(threeProbes);
    EXPECT_THROW(Invocation(*method, {1, 13, 3}), std::runtime_error);
    EXPECT_EQ(theLog(), (Log{"convert 3", "destroy 3"}));
}

TEST_F(ProbedInvocation, OfTwoBadArgumentsTheLastOneIsReported) {
    const auto method = bound(threeProbes);
    EXPECT_THROW(Invocation(*method, {13, 2, 13}), std::runtime_error);
    EXPECT_EQ(theLog(), Log());
}

TEST_F(ProbedInvocation, FunctionThatThrowsDestroysTheArgumentsAndPassesOn) {
    const auto method = bound(throwingCall);
    EXPECT_THROW(Invocation(*method, {1, 2}), std::logic_error);
    EXPECT_EQ(theLog(),
              (Log{"convert 2", "convert 1", "check 2", "check 1", "destroy 1", "destroy 2"}));
}

TEST(Invocation, BadListIsReportedBeforeABadText) {
    const auto method = bound(+[](const std::string&, const Strings&) {});
    const matrix::Array badText(number(1));
    const matrix::Array badList = cellArray({number(1)});
    try {
        Invocation(*method, {cellOf(badText), cellOf(badList)});
        FAIL() << "both arguments were taken";
    } catch (const kobs::factory::HostTypeError& error) {
        std::string expected;
        try {
            kobs::factory::errorMustBeString(0);
        } catch (const kobs::factory::HostTypeError& report) {
            expected = report.what();
        }
        EXPECT_EQ(error.what(), expected);
    }
}

TEST(Invocation, WithoutResultLeavesCountAndCellsAlone) {
    const auto method = bound(+[](std::int32_t) {});
    const Invocation call(*method, {1}, 0);
    EXPECT_EQ(call.count, 0);
    EXPECT_EQ(call.results[0], Invocation::untouched);
}

TEST(Invocation, ResultGoesIntoTheFirstCell) {
    const auto method = bound(+[](double value) { return value > 0; });
    const Invocation call(*method, {std::bit_cast<kobs::Cell>(0.5)}, 0);
    EXPECT_EQ(call.count, 1);
    EXPECT_EQ(call.results[0], 1u);
    EXPECT_EQ(call.results[1], Invocation::untouched);
}

TEST(Invocation, FunctionIsCalledEvenWhenNoResultIsWanted) {
    static int calls = 0;
    const auto method = bound(+[] { return std::uint64_t(++calls); });
    const Invocation call(*method, {}, -1);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(call.results[0], Invocation::untouched);
}

TEST(Invocation, PointerArgumentIsTheTextOfTheArray) {
    static std::string seen;
    const auto method = bound(+[](const char* text) { seen = text ? text : "(none)"; });
    const matrix::Array name = matrix::create("libm.so.6");
    Invocation(*method, {cellOf(name)});
    EXPECT_EQ(seen, "libm.so.6");
    Invocation(*method, {0});
    EXPECT_EQ(seen, "(none)");
}

TEST(Signature, NamesTheTypeOfEachArgumentInOrder) {
    EXPECT_EQ(inputsOf(+[](const std::string&, const Strings&, std::uint64_t, std::uint64_t) {}),
              (Strings{"char", "KobsFactoryString vector", "uint64 scalar", "uint64 scalar"}));
    EXPECT_EQ(inputsOf(+[](bool, std::int32_t, double, const char*, const fl::ustring&) {}),
              (Strings{"logical scalar", "int32 scalar", "double scalar", "char",
                       "KobsFactoryString scalar"}));
}

TEST(Signature, WithoutArgumentsHasNoInputsAndOneOutput) {
    EXPECT_EQ(inputsOf(+[] {}), Strings());
    EXPECT_EQ(outputsOf(+[] {}), Strings{"void"});
}

TEST(Signature, NamesTheTypeOfTheResult) {
    EXPECT_EQ(outputsOf(+[] { return true; }), Strings{"logical scalar"});
    EXPECT_EQ(outputsOf(+[] { return std::int32_t(); }), Strings{"int32 scalar"});
    EXPECT_EQ(outputsOf(+[] { return std::uint64_t(); }), Strings{"uint64 scalar"});
    EXPECT_EQ(outputsOf(+[] { return fl::ustring(); }), Strings{"KobsFactoryString scalar"});
    EXPECT_EQ(outputsOf(+[] { return Strings(); }), Strings{"KobsFactoryString vector"});
    EXPECT_EQ(outputsOf(+[] { return kobs::factory::hxArrayProxy(); }), Strings{"any"});
}

TEST(Signature, TakesTheOutputListOfWhoeverMakesTheMethod) {
    const auto method = bound(+[](const std::string&, const std::string&) {}, {},
                              {kobs::internal::makeInterned("given")});
    EXPECT_EQ(textsOf(method->getMethodSignature()->outputs), Strings{"given"});
}

TEST(Attributes, PlainFunctionIsPublishedAsStatic) {
    const auto method = bound(+[] {});
    EXPECT_TRUE(method->isStatic());
    EXPECT_FALSE(method->isFirstArgDispatch());
    EXPECT_FALSE(method->getMethodSignature()->objectArgument);
}

TEST(Attributes, ObjectArgumentIsKeptAndNotMadeStatic) {
    const auto method = bound(
        +[](bool) {}, ObjectArgument());
    EXPECT_FALSE(method->isStatic());
    EXPECT_TRUE(method->isFirstArgDispatch());
    EXPECT_TRUE(method->getMethodSignature()->objectArgument);
}

TEST(Attributes, HiddenAndPrivateAreKeptBesideStatic) {
    MethodAttributes attributes = MethodAttributes::Static();
    attributes |= MethodAttributes::Hidden();
    attributes |= MethodAttributes::Private();
    EXPECT_EQ(bound(
                  +[] {}, attributes)
                  ->attributes()
                  .bits(),
              attributes.bits());
}

TEST(Layout, FunctionAndObjectFlagFollowTheFactorysMethod) {
    using Method = MethodImpl<void(bool)>;
    static_assert(sizeof(Method) == sizeof(KobsMethod) + 2 * sizeof(void*));
    void (*function)(bool) = [](bool) {};
    const auto method = bound(function, ObjectArgument());
    const char* bytes = reinterpret_cast<const char*>(method.get()) + sizeof(KobsMethod);
    void (*stored)(bool) = nullptr;
    std::memcpy(&stored, bytes, sizeof stored);
    EXPECT_EQ(stored, function);
    EXPECT_EQ(bytes[sizeof stored], 1);
}

TEST(Slots, OfMethodsStandInTheirOrder) {
    using Info = kobs::COSMethodInfo;
    const std::size_t slots[] = {
        slotOf(&Info::getName),
        slotOf(&Info::getDescription),
        slotOf(&Info::isLookupScope),
        slotOf(&Info::getDetailedDescription),
        slotOf(&Info::getMemberAccess),
        slotOf(&Info::getExtendedAccess),
        slotOf(&Info::getMethodSignature),
        slotOf(&Info::invoke),
        slotOf(&Info::isFirstArgDispatch),
        slotOf(&Info::isStatic),
        slotOf(&Info::isAbstract),
        slotOf(&Info::isSealed),
        slotOf(&Info::isVisible),
        slotOf(&Info::isDestructible),
        slotOf(&Info::isLocked),
        slotOf(&Info::isExplicit),
        slotOf(&Info::doesMethodOverrideAllSignatures),
    };
    std::size_t expected = 2;  // behind the two entries of the destructor
    for (const std::size_t slot : slots)
        EXPECT_EQ(slot, expected++);
}

TEST(Slots, OnlyTheInvocationIsTheBindingsOwn) {
    struct Bare : KobsMethod {
        Bare() : KobsMethod("bare", {}, "") {}
        void invoke(void*, std::int32_t*, kobs::Cell*, std::int32_t, const kobs::Cell*) override {}
    };
    const Bare bare;
    const auto method = bound(+[] {});
    const std::size_t invocation = slotOf(&kobs::COSMethodInfo::invoke);
    const std::size_t last = slotOf(&kobs::COSMethodInfo::doesMethodOverrideAllSignatures);
    for (std::size_t slot = 2; slot <= last; ++slot) {
        const bool same = entryIn(method.get(), slot) == entryIn(&bare, slot);
        EXPECT_EQ(same, slot != invocation) << "slot " << slot;
    }
}

}  // namespace
