// Making arrays, asking for their shape, destroying them.
#include "zandor/runtime/array.hpp"

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>
#include <new>
#include <stdexcept>
#include <utility>

#include "zandor/runtime/array_layout.hpp"
#include "zandor/runtime/array_pool.hpp"

namespace matrix {

namespace detail {

static_assert(sizeof(hxArray) == 24 && alignof(std::u16string) <= 8);

hxArray* allocateArray(ClassId classId, std::size_t rows, std::size_t columns,
                       std::size_t payloadBytes) {
    if (payloadBytes > std::numeric_limits<std::ptrdiff_t>::max() - sizeof(hxArray)) {
        throw std::length_error("an array of this size does not fit into memory");
    }
    const Block block = allocateBlock(sizeof(hxArray) + payloadBytes);
    return new (block.memory) hxArray{rows, columns, classId, block.sizeClass};
}

void freeArray(hxArray* array) noexcept {
    freeBlock({array, array->sizeClass});
}

std::size_t payloadSize(std::size_t rows, std::size_t columns, std::size_t bytesEach) {
    std::size_t count = 0;
    std::size_t bytes = 0;
    if (__builtin_mul_overflow(rows, columns, &count) ||
        __builtin_mul_overflow(count, bytesEach, &bytes)) {
        throw std::length_error("an array of this size does not fit into memory");
    }
    return bytes;
}

Array createChars(std::size_t length) {
    return Array(allocateArray(ClassId::character, length ? 1 : 0, length,
                               payloadSize(1, length, sizeof(char16_t))));
}

namespace {

std::size_t elementSize(ClassId classId) noexcept {
    switch (classId) {
        case ClassId::logical:
            return sizeof(bool);
        case ClassId::character:
            return sizeof(char16_t);
        case ClassId::int32:
            return sizeof(std::int32_t);
        case ClassId::real:
        case ClassId::uint64:
            return 8;
        default:
            return 0;
    }
}

template <typename T>
hxArray* createScalar(ClassId classId, T value) {
    hxArray* array = allocateArray(classId, 1, 1, sizeof value);
    *payload<T>(*array) = value;
    return array;
}

/// Arrays that are waiting to be destroyed, linked through their own headers: nesting costs no
/// stack, and waiting no memory.
class Doomed {
  public:
    void push(hxArray* array) noexcept {
        // Only the element count is still needed of the shape, which leaves room for the link.
        array->rows = elementCount(*array);
        array->columns = std::bit_cast<std::size_t>(std::exchange(first_, array));
    }
    hxArray* pop() noexcept {
        hxArray* array = first_;
        if (array) {
            first_ = std::bit_cast<hxArray*>(std::exchange(array->columns, 1));
        }
        return array;
    }

  private:
    hxArray* first_ = nullptr;
};

bool ownsMore(const hxArray& array) noexcept {
    return array.classId == ClassId::cell || array.classId == ClassId::structure ||
           array.classId == ClassId::string;
}

/// Up to here nested arrays are destroyed while their parent is still in the processor's cache.
constexpr int nearbyDepth = 32;
/// So many values ahead, memory is fetched while others are being destroyed.
constexpr std::size_t lookAhead = 12;

void destroyDeep(hxArray& array, int depth, Doomed& doomed) noexcept;

void destroyValues(std::span<hxArray* const> values, int depth, Doomed& doomed) noexcept {
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (i + lookAhead < values.size()) {
            __builtin_prefetch(values[i + lookAhead], 1);
        }
        hxArray* value = values[i];
        if (!value) {
            continue;
        }
        if (!ownsMore(*value)) {
            freeArray(value);
        } else if (depth == nearbyDepth) {
            doomed.push(value);
        } else {
            destroyDeep(*value, depth + 1, doomed);
        }
    }
}

void destroyDeep(hxArray& array, int depth, Doomed& doomed) noexcept {
    const std::size_t count = elementCount(array);
    switch (array.classId) {
        case ClassId::cell:
            destroyValues({payload<hxArray*>(array), count}, depth, doomed);
            break;
        case ClassId::structure:
            destroyValues({fieldValues(array), count * fieldTable(array).size()}, depth, doomed);
            std::destroy_at(&sharedFieldTable(array));
            break;
        case ClassId::string:
            std::destroy_n(payload<std::u16string>(array), count);
            break;
        default:
            break;
    }
    freeArray(&array);
}

}  // namespace

Array do_create_struct(std::size_t rows, std::size_t columns,
                       std::span<const char* const> fieldNames) {
    SharedFieldTable table = shareFieldTable(fieldNames);
    const std::size_t values =
        payloadSize(payloadSize(rows, columns, 1), table->size(), sizeof(hxArray*));
    // Room for the table beside so many values is checked by the sum in allocateArray.
    const std::size_t bytes = std::max(values, values + sizeof(SharedFieldTable));
    hxArray* array = allocateArray(ClassId::structure, rows, columns, bytes);
    new (payload<void>(*array)) SharedFieldTable(std::move(table));
    std::memset(fieldValues(*array), 0, values);
    return Array(array);
}

Array do_create_cell(std::size_t rows, std::size_t columns) {
    const std::size_t bytes = payloadSize(rows, columns, sizeof(hxArray*));
    hxArray* array = allocateArray(ClassId::cell, rows, columns, bytes);
    std::memset(payload<void>(*array), 0, bytes);
    return Array(array);
}

Array do_create_uninitnumeric(ClassId classId, std::size_t rows, std::size_t columns) {
    const std::size_t each = elementSize(classId);
    if (!each || classId == ClassId::character) {
        throw std::invalid_argument("the elements of this class are no numbers");
    }
    return Array(allocateArray(classId, rows, columns, payloadSize(rows, columns, each)));
}

namespace noninlined::hx_array_api {

hxArray* hxCreateDoubleScalar(double value) {
    return createScalar(ClassId::real, value);
}
hxArray* hxCreateLogicalScalar(bool value) {
    return createScalar(ClassId::logical, value);
}
hxArray* hxCreateInt32Scalar(std::int32_t value) {
    return createScalar(ClassId::int32, value);
}
hxArray* hxCreateUint64Scalar(std::uint64_t value) {
    return createScalar(ClassId::uint64, value);
}

hxArray* hxCreateCellMatrix(std::size_t rows, std::size_t columns) {
    return do_create_cell(rows, columns).release();
}

hxArray* hxCreateStringArray(std::size_t rows, std::size_t columns) {
    const std::size_t bytes = payloadSize(rows, columns, sizeof(std::u16string));
    hxArray* array = allocateArray(ClassId::string, rows, columns, bytes);
    std::uninitialized_default_construct_n(payload<std::u16string>(*array), elementCount(*array));
    return array;
}

ClassId hxGetClassId(const hxArray* array) noexcept {
    return array->classId;
}
std::size_t hxGetRows(const hxArray* array) noexcept {
    return array->rows;
}
std::size_t hxGetColumns(const hxArray* array) noexcept {
    return array->columns;
}
std::size_t hxGetElementCount(const hxArray* array) noexcept {
    return elementCount(*array);
}

const char* hxGetClassName(ClassId classId) noexcept {
    switch (classId) {
        case ClassId::cell:
            return "cell";
        case ClassId::structure:
            return "struct";
        case ClassId::logical:
            return "logical";
        case ClassId::character:
            return "char";
        case ClassId::real:
            return "double";
        case ClassId::int32:
            return "int32";
        case ClassId::uint64:
            return "uint64";
        case ClassId::string:
            return "string";
    }
    return "unknown";
}

void* hxGetData(hxArray* array) noexcept {
    return ownsMore(*array) ? nullptr : payload<void>(*array);
}
const void* hxGetData(const hxArray* array) noexcept {
    return ownsMore(*array) ? nullptr : payload<void>(*array);
}

}  // namespace noninlined::hx_array_api
}  // namespace detail

void destroyArray(hxArray* array) noexcept {
    if (!array)
        return;
    detail::Doomed doomed;
    detail::destroyDeep(*array, 0, doomed);
    while (hxArray* next = doomed.pop()) {
        detail::destroyDeep(*next, 0, doomed);
    }
}

std::size_t liveArrayCount() noexcept {
    return detail::liveBlockCount();
}

}  // namespace matrix
