// Host values of any kind and shape from a fuzzer's bytes.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "zandor/runtime/array.hpp"
#include "zandor/runtime/zandor.hpp"

namespace fuzzing {

namespace hx = matrix::hx;
using zandor::Value;

/// Few, so that events, rules and queries meet; some are not quite right.
inline constexpr std::u16string_view words[] = {
    u"solve", u"read",   u"",        u"n",        u"m",         u"a",   u"b",
    u"name",  u"count",  u"\xd800x", u"e\u0301",  u"a\0b",      u"a;b", u"\"\\",
    u"\n\t",  u"\u2028", u"sleep",   u"duration", u"\U0001f600"};

inline std::u16string anyText(FuzzedDataProvider& input) {
    if (input.ConsumeIntegralInRange(0, 15) != 0)
        return std::u16string(input.PickValueInArray(words));
    std::u16string text;
    for (int left = input.ConsumeIntegralInRange(0, 3); left > 0; --left)
        text += static_cast<char16_t>(input.ConsumeIntegral<std::uint16_t>());
    return text;
}

inline matrix::Array charArray(const std::u16string& text) {
    return matrix::Array(hx::hxCreateString_UTF16(text));
}

inline std::pair<std::size_t, std::size_t> anyShape(FuzzedDataProvider& input) {
    return {input.ConsumeIntegralInRange<std::size_t>(0, 3),
            input.ConsumeIntegralInRange<std::size_t>(0, 3)};
}

inline matrix::Array anyArray(FuzzedDataProvider& input, int depth = 2);

inline matrix::Array anyStrings(FuzzedDataProvider& input) {
    const auto [rows, columns] = anyShape(input);
    matrix::Array strings(hx::hxCreateStringArray(rows, columns));
    for (std::size_t i = 0; i < rows * columns; ++i)
        hx::hxSetString(strings.get(), i, anyText(input));
    return strings;
}

inline matrix::Array anyNumbers(FuzzedDataProvider& input, matrix::ClassId classId,
                                std::size_t elementBytes) {
    const auto [rows, columns] = anyShape(input);
    matrix::Array array = matrix::detail::do_create_uninitnumeric(classId, rows, columns);
    std::string bytes = input.ConsumeBytesAsString(rows * columns * elementBytes);
    bytes.resize(rows * columns * elementBytes);
    if (classId == matrix::ClassId::logical)
        for (char& byte : bytes)
            byte &= 1;
    std::copy(bytes.begin(), bytes.end(), static_cast<char*>(hx::hxGetData(array.get())));
    return array;
}

inline matrix::Array anyCell(FuzzedDataProvider& input, int depth) {
    const auto [rows, columns] = anyShape(input);
    matrix::Array cell(hx::hxCreateCellMatrix(rows, columns));
    for (std::size_t i = 0; i < rows * columns; ++i)
        if (input.ConsumeIntegralInRange(0, 15) != 0)
            hx::hxSetCell(cell.get(), i, matrix::to_zandor(anyArray(input, depth - 1)));
    return cell;
}

inline matrix::Array anyStruct(FuzzedDataProvider& input, int depth) {
    const auto [rows, columns] = anyShape(input);
    const char* const names[] = {"a", "b", "a"};
    matrix::Array made = matrix::detail::do_create_struct(rows, columns, names);
    for (std::size_t i = 0; i < rows * columns; ++i)
        hx::hxSetField(made.get(), i, "a", matrix::to_zandor(anyArray(input, depth - 1)));
    return made;
}

inline matrix::Array anyArray(FuzzedDataProvider& input, int depth) {
    using matrix::ClassId;
    switch (input.ConsumeIntegralInRange(0, depth > 0 ? 8 : 6)) {
        case 0:
            return anyNumbers(input, ClassId::real, 8);
        case 1:
            return anyNumbers(input, ClassId::int32, 4);
        case 2:
            return anyNumbers(input, ClassId::uint64, 8);
        case 3:
            return anyNumbers(input, ClassId::logical, 1);
        case 4:
            return anyStrings(input);
        case 7:
            return anyCell(input, depth);
        case 8:
            return anyStruct(input, depth);
        default:
            return charArray(anyText(input));
    }
}

/// Names and values in turn, mostly of an even number, as a string array or a cell array.
inline matrix::Array anyTexts(FuzzedDataProvider& input) {
    const std::size_t count = input.PickValueInArray<std::size_t>({2, 2, 2, 0, 4, 6, 1, 3});
    if (input.ConsumeBool()) {
        matrix::Array strings(hx::hxCreateStringArray(count, 1));
        for (std::size_t i = 0; i < count; ++i)
            hx::hxSetString(strings.get(), i, anyText(input));
        return strings;
    }
    matrix::Array cell(hx::hxCreateCellMatrix(1, count));
    for (std::size_t i = 0; i < count; ++i)
        hx::hxSetCell(cell.get(), i, matrix::to_zandor(charArray(anyText(input))));
    return cell;
}

inline Value anyScalar(FuzzedDataProvider& input) {
    switch (input.ConsumeIntegralInRange(0, 5)) {
        case 0:
            return Value::logical(input.ConsumeBool());
        case 1:
            return Value::integer(input.ConsumeIntegral<std::int64_t>());
        case 2:
            return Value::unsignedInteger(input.ConsumeIntegral<std::uint64_t>());
        case 3:
            return Value::hugeInteger(input.ConsumeBool());
        case 4:
            return Value::real(std::bit_cast<double>(input.ConsumeIntegral<std::uint64_t>()));
        default:
            return Value();
    }
}

inline Value anyValue(FuzzedDataProvider& input) {
    return input.ConsumeBool() ? anyScalar(input) : Value::array(anyArray(input));
}

}  // namespace fuzzing
