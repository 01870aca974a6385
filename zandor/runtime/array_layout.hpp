// How a host array lies in memory: this header, and the payload right behind it in the same block.
//
//   numeric, logical, character   the elements
//   cell                          one hxArray* an element, null where absent
//   struct                        the shared field table, then one hxArray* a field, all of one
//                                 element side by side: elements are filled one after the other
//   string                        one std::u16string an element
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "zandor/runtime/array.hpp"
#include "zandor/runtime/field_table.hpp"

struct hxArray {
    std::size_t rows;
    std::size_t columns;
    matrix::ClassId classId;
    std::uint32_t sizeClass;  ///< of the block that this header begins, for the pool
};

namespace matrix::detail {

/// Places an array of `payloadBytes` whose payload is not begun yet. The caller counts on it being
/// freed with freeArray, never with destroyArray, until the payload lives.
hxArray* allocateArray(ClassId classId, std::size_t rows, std::size_t columns,
                       std::size_t payloadBytes);
void freeArray(hxArray* array) noexcept;

/// rows * columns * bytesEach, or std::length_error.
std::size_t payloadSize(std::size_t rows, std::size_t columns, std::size_t bytesEach);

/// Creates a character row of `length` units that are still to be written.
Array createChars(std::size_t length);

inline std::size_t elementCount(const hxArray& array) noexcept {
    return array.rows * array.columns;
}

template <typename T>
T* payload(hxArray& array) noexcept {
    return reinterpret_cast<T*>(&array + 1);
}
template <typename T>
const T* payload(const hxArray& array) noexcept {
    return reinterpret_cast<const T*>(&array + 1);
}

/// The payload of a struct array; the values follow it.
using SharedFieldTable = std::shared_ptr<const FieldTable>;

inline SharedFieldTable& sharedFieldTable(hxArray& structure) noexcept {
    return *payload<SharedFieldTable>(structure);
}
inline const FieldTable& fieldTable(const hxArray& structure) noexcept {
    return **payload<SharedFieldTable>(structure);
}
inline hxArray** fieldValues(hxArray& structure) noexcept {
    return reinterpret_cast<hxArray**>(payload<SharedFieldTable>(structure) + 1);
}
inline hxArray* const* fieldValues(const hxArray& structure) noexcept {
    return reinterpret_cast<hxArray* const*>(payload<SharedFieldTable>(structure) + 1);
}

/// What an array is, in words for error messages: "text", "double", "cell array", "nothing".
std::string describe(const hxArray* array);

/// Throws HostTypeError unless `array` is one of the class.
void requireClass(const hxArray* array, ClassId classId);
void requireIndex(const hxArray& array, std::size_t index);

}  // namespace matrix::detail
