// What each method does to the model, and what it is expected to give.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "fuzz/method_model.hpp"
#include "zandor/runtime/array.hpp"
#include "zandor/runtime/zandor.hpp"

namespace fuzzing {

namespace hx = matrix::hx;
using Strings = std::vector<std::string>;

/// A call as the method understands it.
struct Call {
    std::string text;          ///< of the first argument
    Strings list;              ///< of the list argument
    std::uint64_t words[2]{};  ///< of scalars, in order
    double number = 0;
    const zandor::Value* result = nullptr;  ///< null where the caller takes none
};

inline void expect(bool holds, const char* what) {
    if (holds)
        return;
    std::fprintf(stderr, "the model says otherwise: %s\n", what);
    std::abort();
}

inline std::string textIn(const zandor::Value& result, std::size_t i, const char* field) {
    return hx::hxArrayToStdString(hx::hxGetField(result.asArray(), i, field));
}
inline double numberIn(const zandor::Value& result, std::size_t i, const char* field) {
    return *static_cast<const double*>(hx::hxGetData(hx::hxGetField(result.asArray(), i, field)));
}
inline std::size_t rowsIn(const zandor::Value& result) {
    return hx::hxGetElementCount(result.asArray());
}

inline void expectLogical(const Call& call, bool wanted) {
    if (call.result)
        expect(call.result->asLogical() == wanted, "a logical result");
}

inline void expectRows(const Call& call, const std::vector<PointModel>& wanted) {
    if (!call.result)
        return;
    expect(rowsIn(*call.result) == wanted.size(), "a number of records");
    for (std::size_t i = 0; i < wanted.size(); ++i)
        expect(textIn(*call.result, i, "name") == wanted[i].name, "a record's name");
}

inline void expectPoints(const Call& call, const std::vector<PointModel>& wanted) {
    expectRows(call, wanted);
    for (std::size_t i = 0; call.result && i < wanted.size(); ++i)
        expect(textIn(*call.result, i, "type") == wanted[i].type, "a record's type");
}

inline void expectCount(const Call& call, std::int64_t wanted) {
    if (!call.result)
        return;
    expect(rowsIn(*call.result) == 1, "one record");
    expect(numberIn(*call.result, 0, "count") == static_cast<double>(wanted), "a count");
}

/// The sum of a column, and how many records there are.
inline void expectSum(const Call& call, const char* field, std::size_t rows, double wanted) {
    if (!call.result)
        return;
    double sum = 0;
    for (std::size_t i = 0; i < rowsIn(*call.result); ++i)
        sum += numberIn(*call.result, i, field);
    expect(rowsIn(*call.result) == rows, "a number of groups");
    expect(sum == wanted, "the sum of counts");
}

inline std::string nameOf(const PointModel& point) {
    return point.name;
}
inline std::pair<std::string, Context> groupOf(const PointModel& point) {
    return {point.name, point.context};
}

template <typename Key>
std::size_t distinct(const std::vector<PointModel>& points, Key key) {
    std::set<decltype(key(points[0]))> keys;
    for (const PointModel& point : points)
        keys.insert(key(point));
    return keys.size();
}

/// Gives whether the method refuses the call, which then did nothing but what this did.
using Effect = std::function<bool(MethodsModel&, const Call&)>;

inline bool hasNul(const std::string& text) {
    return text.find('\0') != std::string::npos;
}

inline constexpr const char* testInstrument =
    "InstrumentPackage::testAPI_addSomethingToInstrumentation";

inline bool startEvent(MethodsModel& model, const Call& call) {
    if (hasNul(call.text))
        return true;
    model.controls.registered.insert(call.text);
    if (call.list.size() % 2 != 0)
        return true;
    const Context context = contextOf(call.list);
    Id id{0, 1};
    if (call.result) {
        const auto number = [&](const char* field) {
            return *static_cast<const std::uint64_t*>(
                hx::hxGetData(hx::hxGetField(call.result->asArray(), 0, field)));
        };
        id = {number("sourceId"), number("serialId")};
    }
    if (!model.anyListener())
        expect(!call.result || id == Id(0, 1), "the id of an event that nobody hears");
    else if (!model.controls.isOn(call.text, context))
        expect(!call.result || id == Id(0, 2), "the id of an event that is off");
    else
        model.deliver({call.text, context, "start", call.result ? id : model.unknownId()});
    return false;
}

inline bool stopEvent(MethodsModel& model, const Call& call) {
    if (hasNul(call.text))
        return true;
    model.controls.registered.insert(call.text);
    if (call.list.size() % 2 != 0)
        return true;
    const Context context = contextOf(call.list);
    if (model.anyListener() && model.controls.isOn(call.text, context))
        model.deliver({call.text, context, "stop", {call.words[0], call.words[1]}});
    return false;
}

inline bool addSomething(MethodsModel& model, const Call& call) {
    model.controls.registered.insert(testInstrument);
    if (!model.anyListener() || !model.controls.isOn(testInstrument))
        return false;
    const Id id = model.unknownId();
    if (call.number == 0) {
        model.deliver({testInstrument, {}, "instant", id});
    } else {
        model.deliver({testInstrument, {}, "start", id});
        model.deliver({testInstrument, {}, "stop", id});
    }
    return false;
}

inline bool stopProfiler(MethodsModel& model, const Call& call) {
    model.profiler.stop(model.controls);
    if (call.result) {
        std::map<std::string, std::uint64_t> calls;
        for (std::size_t i = 0; i < rowsIn(*call.result); ++i)
            calls[textIn(*call.result, i, "Name")] +=
                static_cast<std::uint64_t>(numberIn(*call.result, i, "CallCount"));
        expect(calls == model.profiler.calls, "the profiler's calls");
    }
    model.profiler.clear();
    return false;
}

/// A negative budget is none. What is left is the end of what there was.
inline bool process(MethodsModel& model, const Call& call, std::size_t left) {
    const auto budget = static_cast<std::int64_t>(call.words[0]);
    std::deque<std::string>& pending = model.tasks.pending;
    const bool runs = model.tasks.depth <= 0 && budget > 0;
    expect(left <= pending.size() && (runs || left == pending.size()), "what process leaves");
    if (runs && budget > 600'000'000)
        expect(left == 0, "what much time leaves");
    pending.erase(pending.begin(), pending.end() - static_cast<std::ptrdiff_t>(left));
    return false;
}

}  // namespace fuzzing
