// Calling methods with raw cells, as the host does.
#pragma once

#include <bit>
#include <cstdint>
#include <initializer_list>
#include <string_view>
#include <vector>

#include "zandor/runtime/array.hpp"
#include "zandor/runtime/class_system.hpp"

namespace vantrace_testing {
// Apart from the functions of these names that give values of the host's own interface.
inline namespace cells {

inline kobs::Cell cellOf(const hxArray* array) {
    return std::bit_cast<kobs::Cell>(array);
}
inline kobs::Cell cellOf(const matrix::Array& array) {
    return cellOf(array.get());
}
inline matrix::Array arrayOf(kobs::Cell cell) {
    return matrix::Array(std::bit_cast<hxArray*>(cell));
}

inline matrix::Array cellArray(std::initializer_list<hxArray*> elements) {
    matrix::Array cell(matrix::hx::hxCreateCellMatrix(1, elements.size()));
    std::size_t index = 0;
    for (hxArray* element : elements)
        matrix::hx::hxSetCell(cell.get(), index++, element);
    return cell;
}

inline matrix::Array stringArray(std::initializer_list<std::u16string_view> texts) {
    matrix::Array strings(matrix::hx::hxCreateStringArray(texts.size(), 1));
    std::size_t index = 0;
    for (const std::u16string_view text : texts)
        matrix::hx::hxSetString(strings.get(), index++, std::u16string(text));
    return strings;
}

inline hxArray* text(std::string_view utf8) {
    return matrix::hx::hxCreateString_UTF8(utf8);
}
inline hxArray* number(double value) {
    return matrix::hx::hxCreateDoubleScalar(value);
}

/// One invocation: what it left in the count and in the first of two result cells.
struct Invocation {
    static constexpr kobs::Cell untouched = 0x5a5a5a5a5a5a5a5a;

    Invocation(kobs::COSMethodInfo& method, std::initializer_list<kobs::Cell> arguments,
               std::int32_t requested = 1)
        : count(requested) {
        const std::vector<kobs::Cell> cells(arguments);
        method.invoke(nullptr, &count, results, static_cast<std::int32_t>(cells.size()),
                      cells.data());
    }

    std::int32_t count;
    kobs::Cell results[2] = {untouched, untouched};
};

}  // namespace cells
}  // namespace vantrace_testing
