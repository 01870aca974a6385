// Plain results of bound functions as result cells.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "vantrace/bridge/data_types.hpp"
#include "zandor/runtime/class_system.hpp"
#include "zandor/runtime/factory.hpp"
#include "zandor/runtime/text.hpp"

namespace vantrace {

inline kobs::Cell toCell(bool value) noexcept {
    return value ? 1 : 0;
}
inline kobs::Cell toCell(std::int32_t value) noexcept {
    return static_cast<kobs::Cell>(static_cast<std::int64_t>(value));
}
inline kobs::Cell toCell(std::uint64_t value) noexcept {
    return value;
}
// The arrays in these cells are the caller's.
kobs::Cell toCell(const fl::ustring& text);
kobs::Cell toCell(const std::vector<std::string>& texts);
kobs::Cell toCell(kobs::factory::hxArrayProxy result);

/// Whether the caller of a method takes its result, which counts as asked for when the count is 0.
bool takesResult(std::int32_t& requested, std::string_view dataType);

template <typename Result>
void storeResult(Result&& result, std::int32_t& requested, kobs::Cell* cells) {
    if (takesResult(requested, declaredTypeName<Result>()))
        cells[0] = toCell(std::forward<Result>(result));
}

}  // namespace vantrace
