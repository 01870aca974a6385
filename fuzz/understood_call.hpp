// Host values as a method understands them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "fuzz/method_effects.hpp"
#include "zandor/runtime/array.hpp"
#include "zandor/runtime/text.hpp"
#include "zandor/runtime/zandor.hpp"

namespace fuzzing {

using zandor::Value;

inline bool isText(const Value& value) {
    return value.kind() == Value::Kind::array &&
           hx::hxGetClassId(value.asArray()) == matrix::ClassId::character;
}

inline std::optional<Strings> stringsIn(const Value& value) {
    if (value.kind() == Value::Kind::none)
        return Strings();
    if (value.kind() != Value::Kind::array)
        return {};
    const hxArray* array = value.asArray();
    const matrix::ClassId classId = hx::hxGetClassId(array);
    Strings list;
    for (std::size_t i = 0; i < hx::hxGetElementCount(array); ++i) {
        if (classId == matrix::ClassId::string) {
            list.push_back(fl::i18n::ustring_to_utf8(hx::hxGetString(array, i)));
            continue;
        }
        const hxArray* element =
            classId == matrix::ClassId::cell ? hx::hxGetCell(array, i) : nullptr;
        if (!element || hx::hxGetClassId(element) != matrix::ClassId::character)
            return {};
        const auto text = fl::i18n::ustring_to_utf8_strict(hx::hxGetChars(element));
        if (text && hasNul(*text))
            return {};
        if (text)
            list.push_back(*text);
    }
    if (classId != matrix::ClassId::string && classId != matrix::ClassId::cell)
        return {};
    return list;
}

inline bool understandScalar(const std::string& type, const Value& value, Call& call,
                             std::size_t& word) {
    using Kind = Value::Kind;
    const Kind kind = value.kind();
    const bool whole = kind == Kind::integer || kind == Kind::unsignedInteger;
    if (type == "double scalar") {
        if (kind == Kind::real)
            call.number = value.asReal();
        else if (whole)
            call.number = value.isNegative() ? static_cast<double>(value.asInteger())
                                             : static_cast<double>(value.asUnsignedInteger());
        return whole || kind == Kind::real;
    }
    if (type == "logical scalar") {
        if (kind == Kind::logical)
            call.words[0] = value.asLogical();
        return kind == Kind::logical;
    }
    if (!whole)
        return false;
    if (type == "int32 scalar")
        return value.isNegative() ? value.asInteger() >= INT32_MIN
                                  : value.asUnsignedInteger() <= INT32_MAX;
    if (value.isNegative())
        return false;
    call.words[word++] = value.asUnsignedInteger();
    return true;
}

/// The call as the method understands it; nothing where it must refuse it.
inline std::optional<Call> understood(const std::vector<std::string>& inputs,
                                      const std::vector<Value>& values) {
    Call call;
    std::size_t word = 0;
    for (std::size_t i = 0; i < values.size(); ++i) {
        const Value& value = values[i];
        if (inputs[i] == "KobsFactoryString vector") {
            const std::optional<Strings> list = stringsIn(value);
            if (!list)
                return {};
            call.list = *list;
        } else if (inputs[i] == "char" || inputs[i] == "KobsFactoryString scalar") {
            if (!isText(value))
                return {};
            if (i == 0)
                call.text = value.asText();
        } else if (!understandScalar(inputs[i], value, call, word)) {
            return {};
        }
    }
    return call;
}

}  // namespace fuzzing
