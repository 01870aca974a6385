// Calls by name: what the runtime checks, converts and owns.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <vector>

#include "zandor/runtime/testing/live_arrays.hpp"
#include "zandor/runtime/testing/published.hpp"
#include "zandor/runtime/zandor.hpp"

namespace {

using kobs::Cell;
using kobs::factory::HostTypeError;
using zandor::ArgumentError;
using zandor::ArgumentRangeError;
using zandor::Method;
using zandor::Value;
using zandor::testing::TestMethod;
namespace hx = matrix::hx;

const hxArray* arrayOf(Cell cell) {
    return std::bit_cast<const hxArray*>(cell);
}

/// What the methods below saw of their last call.
struct Seen {
    std::int32_t resultCount = -1;
    std::vector<Cell> cells;
    std::vector<std::string> kinds;  ///< of the array cells
};
Seen seen;

void note(const std::vector<std::string>& inputs, std::int32_t resultCount, std::int32_t count,
          const Cell* cells) {
    seen.resultCount = resultCount;
    seen.cells.assign(cells, cells + count);
    seen.kinds.clear();
    for (std::size_t i = 0; i < inputs.size(); ++i) {
        if (inputs[i].find("scalar") != std::string::npos && !inputs[i].starts_with("Kobs")) {
            continue;
        }
        const hxArray* array = arrayOf(cells[i]);
        seen.kinds.emplace_back(array ? hx::hxGetClassName(hx::hxGetClassId(array)) : "none");
    }
}

/// Publishes "calls<number>.m" and gives it.
Method make(const std::vector<std::string>& inputs, const std::string& output = "void",
            TestMethod::Body body = {}) {
    static int number = 0;
    const std::string root = "calls" + std::to_string(++number);
    zandor::testing::publish(root, [=](kobs::COSPackage& package) {
        package.addMethod(new TestMethod("m", inputs, output,
                                         [=](std::int32_t* resultCount, Cell* results,
                                             std::int32_t count, const Cell* cells) {
                                             note(inputs, *resultCount, count, cells);
                                             if (body)
                                                 body(resultCount, results, count, cells);
                                         }),
                          0, 2);
    });
    return zandor::resolve(root + ".m");
}

/// The method's full name, which errors begin with, becomes "m" for comparing.
template <typename Error, typename... Values>
std::string error(const Method& method, Values... values) {
    try {
        method(std::move(values)...);
    } catch (const Error& caught) {
        std::string text = caught.what();
        const std::string& name = method.description().fullName;
        if (text.starts_with(name))
            text.replace(0, name.size(), "m");
        return text;
    }
    return "no error";
}

TEST(Calls, WithoutArgumentsReachTheMethod) {
    const Method method = make({});
    EXPECT_EQ(method().kind(), Value::Kind::none);
    EXPECT_EQ(seen.cells.size(), 0u);
    EXPECT_EQ(seen.resultCount, 0);
}

TEST(Calls, AskForOneResultWhereThereIsOne) {
    make({}, "logical scalar")();
    EXPECT_EQ(seen.resultCount, 1);
}

TEST(ArgumentCounts, MustBeTheSignatures) {
    EXPECT_EQ(error<ArgumentError>(make({"char"})), "m takes 1 argument, got 0");
    EXPECT_EQ(error<ArgumentError>(make({"char"}), Value(), Value()), "m takes 1 argument, got 2");
    EXPECT_EQ(error<ArgumentError>(make({}), Value()), "m takes no arguments, got 1");
    EXPECT_EQ(error<ArgumentError>(make({"char", "char"}), Value()), "m takes 2 arguments, got 1");
}

TEST(ArgumentErrors, NameTheMethodInFull) {
    const Method method = make({"char"});
    try {
        method();
        FAIL();
    } catch (const ArgumentError& caught) {
        EXPECT_EQ(std::string(caught.what()).find(method.description().fullName), 0u);
    }
}

TEST(ScalarArguments, ArriveAsRawValues) {
    const Method method =
        make({"logical scalar", "int32 scalar", "uint64 scalar", "double scalar"});
    method(Value::logical(true), Value::integer(-2), Value::unsignedInteger(~0ull),
           Value::real(1.5));
    ASSERT_EQ(seen.cells.size(), 4u);
    EXPECT_EQ(seen.cells[0], 1u);
    EXPECT_EQ(static_cast<std::int32_t>(seen.cells[1]), -2);
    EXPECT_EQ(seen.cells[2], ~0ull);
    EXPECT_EQ(std::bit_cast<double>(seen.cells[3]), 1.5);
}

TEST(ScalarArguments, MayBeMany) {
    const Method method = make(std::vector<std::string>(20, "uint64 scalar"));
    std::vector<Value> values;
    for (std::uint64_t i = 0; i < 20; ++i)
        values.push_back(Value::unsignedInteger(i));
    method.call(values);
    ASSERT_EQ(seen.cells.size(), 20u);
    EXPECT_EQ(seen.cells[0], 0u);
    EXPECT_EQ(seen.cells[19], 19u);
}

TEST(LogicalArguments, AreLogicalsOnly) {
    const Method method = make({"logical scalar"});
    const std::string wanted = "m: argument 1 must be a logical (logical scalar), got ";
    EXPECT_EQ(error<ArgumentError>(method, Value::integer(1)), wanted + "integer");
    EXPECT_EQ(error<ArgumentError>(method, Value::real(1)), wanted + "real");
    EXPECT_EQ(error<ArgumentError>(method, Value()), wanted + "nothing");
    EXPECT_EQ(error<ArgumentError>(method, Value::text("true")), wanted + "an array (text)");
}

TEST(IntegerArguments, AreNeitherLogicalNorReal) {
    for (const std::string type : {"int32 scalar", "uint64 scalar"}) {
        const Method method = make({"char", type});
        const std::string wanted = "m: argument 2 must be an integer (" + type + "), got ";
        EXPECT_EQ(error<ArgumentError>(method, Value(), Value::logical(true)), wanted + "logical");
        EXPECT_EQ(error<ArgumentError>(method, Value(), Value::real(1)), wanted + "real");
        EXPECT_EQ(error<ArgumentError>(method, Value(), Value()), wanted + "nothing");
        matrix::Array number(hx::hxCreateInt32Scalar(1));
        EXPECT_EQ(error<ArgumentError>(method, Value(), Value::array(std::move(number))),
                  wanted + "an array (int32)");
    }
}

TEST(IntegerArguments, AreRefusedOutOfRange) {
    const Method int32 = make({"int32 scalar"});
    const std::string range32 = "m: argument 1 must be from -2147483648 to 2147483647, got ";
    EXPECT_EQ(error<ArgumentRangeError>(int32, Value::integer(2147483648)), range32 + "2147483648");
    EXPECT_EQ(error<ArgumentRangeError>(int32, Value::integer(-2147483649)),
              range32 + "-2147483649");
    EXPECT_EQ(error<ArgumentRangeError>(int32, Value::unsignedInteger(~0ull)),
              range32 + "18446744073709551615");
    EXPECT_EQ(error<ArgumentRangeError>(int32, Value::hugeInteger(true)),
              range32 + "an integer below -9223372036854775808");

    const Method uint64 = make({"uint64 scalar"});
    const std::string range64 = "m: argument 1 must be from 0 to 18446744073709551615, got ";
    EXPECT_EQ(error<ArgumentRangeError>(uint64, Value::integer(-1)), range64 + "-1");
    EXPECT_EQ(error<ArgumentRangeError>(uint64, Value::hugeInteger(false)),
              range64 + "an integer above 18446744073709551615");
}

TEST(IntegerArguments, ArriveUpToTheirBounds) {
    const Method int32 = make({"int32 scalar"});
    for (const std::int64_t bound : {-2147483648ll, 2147483647ll}) {
        int32(Value::integer(bound));
        EXPECT_EQ(static_cast<std::int32_t>(seen.cells[0]), bound);
    }
    int32(Value::unsignedInteger(5));
    EXPECT_EQ(seen.cells[0], 5u);
    make({"uint64 scalar"})(Value::integer(std::numeric_limits<std::int64_t>::max()));
    EXPECT_EQ(seen.cells[0], 9223372036854775807u);
}

TEST(RealArguments, TakeIntegersToo) {
    const Method method = make({"double scalar"});
    method(Value::integer(-3));
    EXPECT_EQ(std::bit_cast<double>(seen.cells[0]), -3);
    method(Value::unsignedInteger(~0ull));
    EXPECT_EQ(std::bit_cast<double>(seen.cells[0]), 0x1p64);
    method(Value::real(std::nan("")));
    EXPECT_TRUE(std::isnan(std::bit_cast<double>(seen.cells[0])));
    EXPECT_EQ(error<ArgumentError>(method, Value::logical(true)),
              "m: argument 1 must be a number (double scalar), got logical");
    EXPECT_EQ(error<ArgumentRangeError>(method, Value::hugeInteger(false)),
              "m: argument 1 must be an integer of 64 bits or a real, got an integer above "
              "18446744073709551615");
}

TEST(ScalarArguments, AreCheckedFromTheLastToTheFirst) {
    const Method method = make({"logical scalar", "int32 scalar", "double scalar"});
    EXPECT_EQ(error<ArgumentError>(method, Value(), Value(), Value()),
              "m: argument 3 must be a number (double scalar), got nothing");
    EXPECT_EQ(error<ArgumentError>(method, Value(), Value(), Value::real(0)),
              "m: argument 2 must be an integer (int32 scalar), got nothing");
}

TEST(ArrayArguments, ArriveAsTheyAreAndStayTheCallers) {
    for (const char* type :
         {"char", "KobsFactoryString scalar", "KobsFactoryString vector", "any", "other"}) {
        const Method method = make({type});
        std::vector<Value> values;
        values.push_back(Value::text("solve"));
        const hxArray* own = values[0].asArray();
        method.call(values);
        EXPECT_EQ(arrayOf(seen.cells[0]), own);
        EXPECT_EQ(values[0].asText(), "solve");
    }
}

TEST(ArrayArguments, OfNothingAreNoArray) {
    make({"KobsFactoryString vector"})(Value());
    EXPECT_EQ(seen.cells[0], 0u);
}

TEST(ArrayArguments, GetAScalarsNaturalArray) {
    const Method method = make(std::vector<std::string>(9, "any"));
    std::vector<Value> values;
    values.push_back(Value::logical(true));
    values.push_back(Value::integer(-2147483648));
    values.push_back(Value::integer(-2147483649));
    values.push_back(Value::integer(2147483648));
    values.push_back(Value::unsignedInteger(~0ull));
    values.push_back(Value::unsignedInteger(1));
    values.push_back(Value::real(0.5));
    values.push_back(Value::hugeInteger(true));
    values.push_back(Value());
    const std::size_t before = matrix::liveArrayCount();
    method.call(values);
    EXPECT_EQ(seen.kinds,
              (std::vector<std::string>{"logical", "int32", "double", "uint64", "uint64", "int32",
                                        "double", "double", "none"}));
    EXPECT_EQ(matrix::liveArrayCount(), before);
}

Method giving(const std::string& output, Cell cell) {
    return make({}, output, [cell](auto, Cell* results, auto...) { results[0] = cell; });
}

TEST(Results, OfScalarTypesAreScalars) {
    EXPECT_EQ(giving("logical scalar", 1)().asLogical(), true);
    EXPECT_EQ(giving("int32 scalar", static_cast<Cell>(-5))().asInteger(), -5);
    EXPECT_EQ(giving("uint64 scalar", ~Cell{0})().asUnsignedInteger(), ~0ull);
    EXPECT_EQ(giving("double scalar", std::bit_cast<Cell>(0.25))().asReal(), 0.25);
}

TEST(Results, OfOtherTypesAreArraysThatTheCallerOwns) {
    for (const char* type : {"any", "KobsFactoryString scalar", "KobsFactoryString vector"}) {
        const Method method = make({}, type, [](auto, Cell* results, auto...) {
            results[0] = std::bit_cast<Cell>(matrix::create("result").release());
        });
        EXPECT_EQ(method().asText(), "result");
    }
}

TEST(Results, ThatWereNotStoredAreNothing) {
    EXPECT_EQ(make({}, "any")().kind(), Value::Kind::none);
    EXPECT_EQ(make({}, "void", [](auto, Cell* results, auto...) { results[0] = 1; })().kind(),
              Value::Kind::none);
}

TEST(Results, AreDestroyedWhenTheMethodThrowsAfterStoringOne) {
    const Method method = make({"any"}, "any", [](auto, Cell* results, auto...) {
        results[0] = std::bit_cast<Cell>(matrix::create("result").release());
        throw std::runtime_error("after all");
    });
    const std::size_t before = matrix::liveArrayCount();
    EXPECT_EQ(error<std::runtime_error>(method, Value::real(1)), "after all");
    EXPECT_EQ(matrix::liveArrayCount(), before);
}

template <typename Error>
Method throwing(const std::string& text) {
    return make({}, "void", [text](auto...) { throw Error(text); });
}

TEST(Exceptions, OfTheMethodPassWithTheirTypeAndText) {
    EXPECT_EQ(error<std::invalid_argument>(throwing<std::invalid_argument>("bad")), "bad");
    EXPECT_EQ(error<std::runtime_error>(throwing<std::runtime_error>("worse")), "worse");
}

TEST(Exceptions, OfTheHostsTypesGetTheMethodsName) {
    EXPECT_EQ(error<HostTypeError>(throwing<HostTypeError>("must be text")), "m: must be text");
    EXPECT_EQ(error<ArgumentError>(throwing<ArgumentError>("inner")), "m: inner");
    const Method list = make({}, "void", [](auto...) { kobs::factory::errorMustBeString(1); });
    EXPECT_EQ(error<HostTypeError>(list), "m: element 1 of the list must be text");
}

TEST(Exceptions, ThatAreNoneBecomeOne) {
    const Method method = make({}, "void", [](auto...) { throw 42; });
    EXPECT_EQ(error<std::runtime_error>(method), "m threw what is no standard exception");
}

TEST(Exceptions, LeaveTheMethodCallable) {
    bool bad = true;
    const Method method = make({}, "logical scalar", [&](auto, Cell* results, auto...) {
        if (std::exchange(bad, false))
            throw std::runtime_error("once");
        results[0] = 1;
    });
    EXPECT_THROW(method(), std::runtime_error);
    EXPECT_TRUE(method().asLogical());
}

TEST(Values, ConvertBetweenTheIntegerKindsWhereTheyFit) {
    EXPECT_EQ(Value::unsignedInteger(7).asInteger(), 7);
    EXPECT_EQ(Value::integer(7).asUnsignedInteger(), 7u);
    EXPECT_THROW(Value::unsignedInteger(~0ull).asInteger(), ArgumentRangeError);
    EXPECT_THROW(Value::integer(-1).asUnsignedInteger(), ArgumentRangeError);
    EXPECT_THROW(Value::hugeInteger(true).asInteger(), ArgumentRangeError);
    EXPECT_THROW(Value::hugeInteger(false).asUnsignedInteger(), ArgumentRangeError);
}

TEST(Values, OfAnotherKindAreErrors) {
    EXPECT_THROW(Value::real(1).asInteger(), ArgumentError);
    EXPECT_THROW(Value::real(1).asUnsignedInteger(), ArgumentError);
    EXPECT_THROW(Value::integer(1).asReal(), ArgumentError);
    EXPECT_THROW(Value::integer(1).asLogical(), ArgumentError);
    EXPECT_THROW(Value().asArray(), ArgumentError);
    EXPECT_THROW(Value::real(1).asText(), ArgumentError);
    EXPECT_THROW(Value::array(matrix::detail::do_create_cell(1, 1)).asText(), ArgumentError);
    EXPECT_THROW(Value().takeArray(), ArgumentError);
}

TEST(Values, MakeArraysOfTexts) {
    const std::string texts[] = {"a", "\xc3\xa9"};
    const Value value = Value::texts(texts);
    EXPECT_EQ(hx::hxGetRows(value.asArray()), 2u);
    EXPECT_EQ(hx::hxGetColumns(value.asArray()), 1u);
    EXPECT_EQ(hx::hxGetString(value.asArray(), 1), u"\u00e9");
    EXPECT_EQ(Value::texts(std::span(texts, 1)).asText(), "a");
    EXPECT_THROW(value.asText(), ArgumentError);
}

TEST(Values, GiveTheirArrayAway) {
    Value value = Value::text("mine");
    const matrix::Array taken = std::move(value).takeArray();
    EXPECT_EQ(hx::hxArrayToStdString(taken.get()), "mine");
}

}  // namespace
