// Host values as text, to compare them. Times and ids, which differ from run to run, are left out.
#pragma once

#include <cctype>
#include <cstddef>
#include <string>
#include <string_view>

#include "zandor/runtime/array.hpp"
#include "zandor/runtime/zandor.hpp"

namespace described {

/// Each row of digits becomes one '#'.
inline std::string withoutNumbers(std::string_view text) {
    std::string kept;
    for (const char character : text) {
        const bool digit = std::isdigit(static_cast<unsigned char>(character));
        if (!digit)
            kept += character;
        else if (kept.empty() || kept.back() != '#')
            kept += '#';
    }
    return kept;
}

inline std::string describe(const hxArray* array);

inline std::string describeElement(const hxArray* array, std::size_t index) {
    namespace hx = matrix::hx;
    std::string text;
    switch (hx::hxGetClassId(array)) {
        case matrix::ClassId::cell:
            return describe(hx::hxGetCell(array, index));
        case matrix::ClassId::structure:
            for (std::size_t field = 0; field < hx::hxGetFieldCount(array); ++field)
                text += std::string(hx::hxGetFieldName(array, field)) + "=" +
                        describe(hx::hxGetFieldByNumber(array, index, field)) + ";";
            return text;
        case matrix::ClassId::string:
            return std::to_string(hx::hxGetString(array, index).size());
        default:
            return "#";
    }
}

/// Class, shape and what is in it, but numbers.
inline std::string describe(const hxArray* array) {
    namespace hx = matrix::hx;
    if (!array)
        return "absent";
    if (hx::hxGetClassId(array) == matrix::ClassId::character)
        return "'" + withoutNumbers(hx::hxArrayToStdString(array)) + "'";
    std::string text = std::string(hx::hxGetClassName(hx::hxGetClassId(array))) + "[" +
                       std::to_string(hx::hxGetRows(array)) + "x" +
                       std::to_string(hx::hxGetColumns(array)) + "]{";
    for (std::size_t index = 0; index < hx::hxGetElementCount(array); ++index)
        text += describeElement(array, index) + ",";
    return text + "}";
}

inline std::string describe(const zandor::Value& value) {
    switch (value.kind()) {
        case zandor::Value::Kind::none:
            return "none";
        case zandor::Value::Kind::logical:
            return value.asLogical() ? "true" : "false";
        case zandor::Value::Kind::array:
            return describe(value.asArray());
        default:
            return "number";
    }
}

}  // namespace described
