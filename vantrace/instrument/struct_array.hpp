// Filling host struct arrays with many elements.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "zandor/runtime/array.hpp"

namespace vantrace {

// Field values.
inline matrix::Array textValue(std::string_view utf8) {
    return matrix::create(utf8);
}
inline matrix::Array numberValue(double value) {
    return matrix::Array(matrix::hx::hxCreateDoubleScalar(value));
}
matrix::Array uint64Value(std::uint64_t value);

/// A struct array under construction, whose fields are addressed by their place in the list of
/// names. That also tells fields apart whose names the host had to make unique.
class StructArray {
  public:
    /// One row of `count` elements; the names are C strings.
    StructArray(std::size_t count, std::span<const char* const> fieldNames);

    void set(std::size_t element, std::size_t field, matrix::Array value);
    matrix::Array release() && noexcept { return std::move(array_); }

  private:
    matrix::Array array_;
    std::vector<const char*> names_;  // the array's own: found by identity
};

}  // namespace vantrace
