#include "vantrace/bridge/method_table.hpp"

#include <gtest/gtest.h>

#include <cstddef>
#include <memory>

#include "vantrace/testing/allocation_gate.hpp"
#include "vantrace/testing/cells.hpp"

namespace {

using kobs::factory::MethodAttributes;
using vantrace::createMethod;
using vantrace::MethodRow;
using vantrace_testing::Invocation;
using vantrace_testing::WatchedAllocation;

static_assert(std::variant_size_v<vantrace::PlainFunction> == 21);

std::unique_ptr<kobs::COSMethodInfo> made(const MethodRow& row) {
    return std::unique_ptr<kobs::COSMethodInfo>(createMethod(row, MethodAttributes::Static()));
}

TEST(MethodTable, RowBecomesAMethodOfItsNameBoundToItsFunction) {
    const auto method = made({"answer", +[] { return std::int32_t{42}; }});
    EXPECT_EQ(method->getName(), "answer");
    EXPECT_EQ(method->getDescription(), "");
    EXPECT_EQ(method->getDetailedDescription(), "");
    EXPECT_EQ(method->getMethodSignature()->text, "");
    EXPECT_TRUE(method->isStatic());
    EXPECT_EQ(Invocation(*method, {}).results[0], 42u);
}

TEST(MethodTable, EachMethodHasExactlyOneOutput) {
    const MethodRow rows[] = {
        {"a", +[](const std::string&, const std::string&) {}},
        {"b", +[](const std::string&, const vantrace::Strings&) { return vantrace::Composed(); }},
        {"c", +[] {}},
    };
    const char* const outputs[] = {"void", "any", "void"};
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        const auto signature = made(rows[i])->getMethodSignature();
        ASSERT_EQ(signature->outputs.size(), 1u);
        EXPECT_EQ(signature->outputs[0].text(), outputs[i]);
    }
}

TEST(MethodTable, AllocationThatYieldsNothingGivesNoMethod) {
    const WatchedAllocation watch(WatchedAllocation::Outcome::nothing);
    EXPECT_EQ(made({"answer", +[] { return true; }}), nullptr);
}

}  // namespace
