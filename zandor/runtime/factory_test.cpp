#include "zandor/runtime/factory.hpp"

#include <gtest/gtest.h>

#include <memory>

#include "zandor/runtime/testing/live_arrays.hpp"
#include "zandor/runtime/testing/published.hpp"

namespace {

using kobs::factory::HostTypeError;
using kobs::factory::hxArrayProxy;
using kobs::factory::MethodAttributes;
using matrix::Array;
using zandor::testing::TestMethod;
namespace hx = matrix::hx;

MethodAttributes all() {
    MethodAttributes attributes;
    attributes |= MethodAttributes::Static();
    attributes |= MethodAttributes::Hidden();
    attributes |= MethodAttributes::Private();
    return attributes;
}

TEST(Attributes, BeginEmptyAndKeepEachBitThatIsAdded) {
    EXPECT_EQ(MethodAttributes().bits(), 0u);
    const MethodAttributes copy = all();
    EXPECT_TRUE(copy.contains(MethodAttributes::Static()));
    EXPECT_TRUE(copy.contains(MethodAttributes::Hidden()));
    EXPECT_TRUE(copy.contains(MethodAttributes::Private()));
    EXPECT_FALSE(MethodAttributes::Static().contains(MethodAttributes::Hidden()));
    EXPECT_FALSE(MethodAttributes::Hidden().contains(MethodAttributes::Private()));
}

TEST(Attributes, LeaveTheObjectArgumentBitAlone) {
    EXPECT_EQ(all().bits() & MethodAttributes::objectArgumentBit, 0u);
    EXPECT_EQ(MethodAttributes::objectArgumentBit, 0x1000u);
}

TEST(MethodDescriptors, ShowTheirAttributes) {
    const TestMethod open("open", {}, "void", {}, MethodAttributes::Static());
    EXPECT_TRUE(open.isStatic());
    EXPECT_TRUE(open.isVisible());
    EXPECT_EQ(open.getMemberAccess(), kobs::MemberAccess::publicAccess);
    EXPECT_FALSE(open.isFirstArgDispatch());

    const TestMethod closed("closed", {}, "void", {}, all());
    EXPECT_TRUE(closed.isStatic());
    EXPECT_FALSE(closed.isVisible());
    EXPECT_EQ(closed.getMemberAccess(), kobs::MemberAccess::privateAccess);

    const TestMethod plain("plain", {}, "void", {});
    EXPECT_FALSE(plain.isStatic());
    EXPECT_EQ(plain.getName(), "plain");
    EXPECT_EQ(plain.getDescription(), "");
    EXPECT_EQ(plain.getDetailedDescription(), "");
}

TEST(MethodDescriptors, KeepTheirSignature) {
    const TestMethod method("method", {"char", "uint64 scalar"}, "any", {});
    const auto signature = method.getMethodSignature();
    EXPECT_FALSE(signature->objectArgument);
    EXPECT_EQ(signature->text, "");
    ASSERT_EQ(signature->inputs.size(), 2u);
    EXPECT_EQ(signature->inputs[1], kobs::internal::makeInterned("uint64 scalar"));
    ASSERT_EQ(signature->outputs.size(), 1u);
    EXPECT_EQ(signature->outputs[0].text(), "any");
}

TEST(DataTypeNames, MayBeInitialisedAgain) {
    kobs::factory::detail::initStringDataTypes();
    kobs::factory::detail::initStringDataTypes();
    EXPECT_EQ(kobs::internal::makeInterned("char").text(), "char");
}

TEST(ArrayProxies, ShareOneOwner) {
    const std::size_t before = matrix::liveArrayCount();
    {
        const hxArrayProxy first(hx::hxCreateDoubleScalar(1));
        const hxArrayProxy copy = first;
        EXPECT_EQ(copy.get(), first.get());
        EXPECT_EQ(matrix::liveArrayCount(), before + 1);
    }
    EXPECT_EQ(matrix::liveArrayCount(), before);
}

TEST(ArrayProxies, HandTheArrayOverOnce) {
    hxArrayProxy first(hx::hxCreateDoubleScalar(1));
    hxArrayProxy copy = first;
    const Array taken(copy.release());
    EXPECT_NE(taken, nullptr);
    EXPECT_EQ(first.get(), nullptr);
    EXPECT_EQ(first.release(), nullptr);
    EXPECT_EQ(hxArrayProxy().get(), nullptr);
    EXPECT_EQ(hxArrayProxy().release(), nullptr);
}

std::string refusal(const hxArray* array) {
    try {
        kobs::factory::extractString(array);
    } catch (const HostTypeError& error) {
        return error.what();
    }
    return "";
}

TEST(ExtractingAString, TakesTextAndAStringArrayOfOne) {
    const Array text = matrix::create("so\xc3\xa9");
    EXPECT_EQ(kobs::factory::extractString(text.get()), u"so\u00e9");
    const Array strings(hx::hxCreateStringArray(1, 1));
    hx::hxSetString(strings.get(), 0, u"one");
    EXPECT_EQ(kobs::factory::extractString(strings.get()), u"one");
}

TEST(ExtractingAString, RefusesEverythingElse) {
    const Array number(hx::hxCreateDoubleScalar(1));
    const Array two(hx::hxCreateStringArray(2, 1));
    EXPECT_EQ(refusal(number.get()), "argument must be text, got double");
    EXPECT_EQ(refusal(two.get()), "argument must be text, got string array");
    EXPECT_EQ(refusal(nullptr), "argument must be text, got nothing");
}

TEST(StringVectors, AreStringArraysOfAnyLength) {
    const Array none(hx::hxCreateStringArray(0, 1));
    const Array two(hx::hxCreateStringArray(2, 1));
    hx::hxSetString(two.get(), 0, u"a");
    hx::hxSetString(two.get(), 1, u"b");
    EXPECT_TRUE(kobs::factory::isStringVector(two.get()));
    EXPECT_EQ(kobs::factory::extractFromStringVector(two.get()),
              (std::vector<fl::ustring>{u"a", u"b"}));
    EXPECT_TRUE(kobs::factory::extractFromStringVector(none.get()).empty());

    const Array text = matrix::create("text");
    EXPECT_FALSE(kobs::factory::isStringVector(text.get()));
    EXPECT_FALSE(kobs::factory::isStringVector(nullptr));
    EXPECT_THROW(kobs::factory::extractFromStringVector(text.get()), HostTypeError);
}

template <typename Report>
std::string reported(Report report) {
    try {
        report();
    } catch (const HostTypeError& error) {
        return error.what();
    }
    return "";
}

TEST(ErrorReporters, SayWhatAListMustBe) {
    EXPECT_EQ(reported([] { kobs::factory::errorMustBeCellArray(); }),
              "argument must be a cell array of text or a string array");
    EXPECT_EQ(reported([] { kobs::factory::errorMustBeString(1); }),
              "element 1 of the list must be text");
}

}  // namespace
