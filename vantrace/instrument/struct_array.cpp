#include "vantrace/instrument/struct_array.hpp"

#include <cstring>
#include <utility>

namespace vantrace {

namespace hx = matrix::hx;

matrix::Array uint64Value(std::uint64_t value) {
    matrix::Array array = matrix::detail::do_create_uninitnumeric(matrix::ClassId::uint64, 1, 1);
    std::memcpy(hx::hxGetData(array.get()), &value, sizeof value);
    return array;
}

StructArray::StructArray(std::size_t count, std::span<const char* const> fieldNames)
    : array_(matrix::detail::do_create_struct(1, count, fieldNames)) {
    names_.reserve(fieldNames.size());
    for (std::size_t field = 0; field < fieldNames.size(); ++field)
        names_.push_back(hx::hxGetFieldName(array_.get(), field));
}

void StructArray::set(std::size_t element, std::size_t field, matrix::Array value) {
    hx::hxSetField(array_.get(), element, names_[field], matrix::to_zandor(std::move(value)));
}

}  // namespace vantrace
