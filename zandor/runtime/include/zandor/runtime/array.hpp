// Host arrays: the values that the host's users, its plug-ins and its front ends exchange.
//
//   matrix::Array text = matrix::create("solve", 5);             // owned: destroyed with its owner
//   hxArray* raw = matrix::to_zandor(std::move(text));           // released: somebody else's now
//
// An array has a class, a number of rows and of columns, and one value an element, in column
// order. Text is UTF-16 inside. An element of a cell or a field of a struct owns the array in it;
// an element that was never set is absent (null). Small arrays come from pools, header and
// payload in one block; destroying an array destroys all that it owns in one pass.
//
// Every array has one owner. Distinct arrays may be used from distinct threads at once; one array
// is for one thread at a time, but any number may read it while none writes. Failures are
// std::bad_alloc, std::length_error for sizes that do not fit, std::out_of_range for an index
// or a field name that the array lacks, and kobs::factory::HostTypeError for an array of another
// class.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "zandor/runtime/export.hpp"

/// A host array. Its layout is the runtime's own.
struct hxArray;

namespace matrix {

/// What the elements of an array are.
enum class ClassId : std::int32_t {
    cell = 1,       ///< arrays of any class
    structure = 2,  ///< named fields, each an array of any class
    logical = 3,    ///< one byte, 0 or 1
    character = 4,  ///< UTF-16 code units
    real = 6,       ///< double
    int32 = 12,     ///< signed 32-bit integers
    uint64 = 15,    ///< unsigned 64-bit integers
    string = 19,    ///< whole texts, each of its own length
};

/// Destroys `array` and all that it owns; null is accepted.
ZANDOR_RUNTIME_API void destroyArray(hxArray* array) noexcept;

struct ArrayDeleter {
    void operator()(hxArray* array) const noexcept { destroyArray(array); }
};

/// The owning pointer of a host array.
using Array = std::unique_ptr<hxArray, ArrayDeleter>;

/// A row of characters from `length` bytes of UTF-8 (need not be NUL-terminated; may hold NULs).
/// Ill-formed bytes become U+FFFD. Empty text is a 0-by-0 character array.
ZANDOR_RUNTIME_API Array create(const char* utf8, std::size_t length);
inline Array create(std::string_view utf8) {
    return create(utf8.data(), utf8.size());
}

/// Releases the owning pointer: the caller owns the raw array from here on.
inline hxArray* to_zandor(Array&& array) noexcept {
    return array.release();
}

/// How many arrays live in this process now: a leak shows as a difference.
ZANDOR_RUNTIME_API std::size_t liveArrayCount() noexcept;

namespace detail {

/// A struct array of absent values. `fieldNames` are C strings, copied; a name that occurs again
/// is made unique ("name", "name_2"). Fields can be none.
ZANDOR_RUNTIME_API Array do_create_struct(std::size_t rows, std::size_t columns,
                                          std::span<const char* const> fieldNames);

/// A cell array of absent elements.
ZANDOR_RUNTIME_API Array do_create_cell(std::size_t rows, std::size_t columns);

/// A numeric or logical array whose elements are to be written before they are read.
ZANDOR_RUNTIME_API Array do_create_uninitnumeric(ClassId classId, std::size_t rows,
                                                 std::size_t columns);

namespace noninlined::hx_array_api {

// Making arrays. The caller owns what is returned.

ZANDOR_RUNTIME_API hxArray* hxCreateDoubleScalar(double value);
ZANDOR_RUNTIME_API hxArray* hxCreateLogicalScalar(bool value);
ZANDOR_RUNTIME_API hxArray* hxCreateInt32Scalar(std::int32_t value);
ZANDOR_RUNTIME_API hxArray* hxCreateUint64Scalar(std::uint64_t value);
ZANDOR_RUNTIME_API hxArray* hxCreateString_UTF8(std::string_view utf8);
ZANDOR_RUNTIME_API hxArray* hxCreateString_UTF16(std::u16string_view utf16);
ZANDOR_RUNTIME_API hxArray* hxCreateCellMatrix(std::size_t rows, std::size_t columns);
/// A string array of empty texts.
ZANDOR_RUNTIME_API hxArray* hxCreateStringArray(std::size_t rows, std::size_t columns);

// Shape and class.

ZANDOR_RUNTIME_API ClassId hxGetClassId(const hxArray* array) noexcept;
ZANDOR_RUNTIME_API std::size_t hxGetRows(const hxArray* array) noexcept;
ZANDOR_RUNTIME_API std::size_t hxGetColumns(const hxArray* array) noexcept;
ZANDOR_RUNTIME_API std::size_t hxGetElementCount(const hxArray* array) noexcept;
/// "char", "cell", "struct", "logical", "double", "int32", "uint64", "string".
ZANDOR_RUNTIME_API const char* hxGetClassName(ClassId classId) noexcept;

// Elements of numeric, logical and character arrays: a pointer to the first, in column order.

ZANDOR_RUNTIME_API void* hxGetData(hxArray* array) noexcept;
ZANDOR_RUNTIME_API const void* hxGetData(const hxArray* array) noexcept;
/// The code units of a character array.
ZANDOR_RUNTIME_API std::u16string_view hxGetChars(const hxArray* array);

// Text out of character arrays.

/// UTF-8 of a character array; ill-formed UTF-16 becomes U+FFFD. Not text: HostTypeError.
ZANDOR_RUNTIME_API std::string hxArrayToStdString(const hxArray* array);
/// Newly allocated NUL-terminated UTF-8 of a character array, freed with hxFreeEx; null when the
/// array is none, is not text or holds ill-formed UTF-16. A NUL inside the text, which such a
/// result could not show, is std::invalid_argument.
ZANDOR_RUNTIME_API char* hxArrayToString_UTF8(const hxArray* array);
ZANDOR_RUNTIME_API void hxFreeEx(void* text) noexcept;

// Cells, zero-based. hxSetCell takes `value` over, also when it throws; an earlier one is
// destroyed.

ZANDOR_RUNTIME_API void hxSetCell(hxArray* cell, std::size_t index, hxArray* value);
ZANDOR_RUNTIME_API const hxArray* hxGetCell(const hxArray* cell, std::size_t index);

// Texts of string arrays, zero-based.

ZANDOR_RUNTIME_API void hxSetString(hxArray* strings, std::size_t index, std::u16string text);
ZANDOR_RUNTIME_API std::u16string_view hxGetString(const hxArray* strings, std::size_t index);

// Fields of struct arrays. hxSetField takes `value` over, also when it throws; an earlier one is
// destroyed. A name pointer obtained from hxGetFieldName of the same array is found by identity,
// without comparing text, which is how to fill many elements.

ZANDOR_RUNTIME_API void hxSetField(hxArray* structure, std::size_t index, const char* name,
                                   hxArray* value);
ZANDOR_RUNTIME_API const hxArray* hxGetField(const hxArray* structure, std::size_t index,
                                             const char* name);
ZANDOR_RUNTIME_API const hxArray* hxGetFieldByNumber(const hxArray* structure, std::size_t index,
                                                     std::size_t field);
ZANDOR_RUNTIME_API std::size_t hxGetFieldCount(const hxArray* structure);
ZANDOR_RUNTIME_API const char* hxGetFieldName(const hxArray* structure, std::size_t field);
/// The field's zero-based number, or -1 when there is none of that name.
ZANDOR_RUNTIME_API std::ptrdiff_t hxGetFieldNumber(const hxArray* structure, std::string_view name);

}  // namespace noninlined::hx_array_api
}  // namespace detail

namespace hx = detail::noninlined::hx_array_api;

}  // namespace matrix
