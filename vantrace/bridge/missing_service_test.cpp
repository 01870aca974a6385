// Methods without their service are published, can be called, and say what is missing.
#include "vantrace/bridge/missing_service.hpp"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "vantrace/testing/published.hpp"

namespace {

using zandor::Value;

Value someValueOf(const std::string& dataType) {
    if (dataType == "char" || dataType == "KobsFactoryString scalar")
        return Value::text("some");
    if (dataType == "KobsFactoryString vector")
        return vantrace_testing::texts({"a", "b"});
    if (dataType == "logical scalar")
        return Value::logical(true);
    return Value::integer(1);
}

std::string answerOf(const zandor::Method& method) {
    std::vector<Value> arguments;
    for (const std::string& input : method.description().inputs)
        arguments.push_back(someValueOf(input));
    try {
        method.call(arguments);
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "no error";
}

struct Lacking {
    const char* name;
    const char* answer;
};

class MissingService : public testing::TestWithParam<Lacking> {};

TEST_P(MissingService, IsNamedByEveryMethodOfItsNamespace) {
    ZDInitialize_vantrace();
    zandor::Namespace branch = zandor::findRoot("performance");
    std::string path = GetParam().name;
    for (std::size_t dot = path.find('.'); dot != std::string::npos; dot = path.find('.')) {
        branch = branch.findNamespace(path.substr(0, dot));
        path.erase(0, dot + 1);
    }
    for (const zandor::Method& method : branch.findNamespace(path).methods())
        EXPECT_EQ(answerOf(method), GetParam().answer) << method.description().fullName;
}

INSTANTIATE_TEST_SUITE_P(
    Namespaces, MissingService,
    testing::Values(
        Lacking{"instrument.profiler", "the event profiler is not available in this build"}),
    [](const auto& row) {
        const std::string path = row.param.name;
        return path.substr(path.rfind('.') + 1);
    });

}  // namespace
