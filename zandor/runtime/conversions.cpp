// Conversions of host values that the bindings of plug-ins share.

#include "zandor/runtime/array_layout.hpp"
#include "zandor/runtime/data_types.hpp"
#include "zandor/runtime/factory.hpp"

namespace kobs::factory {

namespace hx = matrix::hx;

hxArrayProxy::hxArrayProxy(hxArray* owned) {
    matrix::Array array(owned);
    owner_ = std::make_shared<matrix::Array>(std::move(array));
}
hxArray* hxArrayProxy::get() const noexcept {
    return owner_ ? owner_->get() : nullptr;
}
hxArray* hxArrayProxy::release() noexcept {
    return owner_ ? owner_->release() : nullptr;
}

fl::ustring extractString(const hxArray* array) {
    if (isStringVector(array) && hx::hxGetElementCount(array) == 1) {
        return fl::ustring(hx::hxGetString(array, 0));
    }
    if (!array || hx::hxGetClassId(array) != matrix::ClassId::character) {
        throw HostTypeError("argument must be text, got " + matrix::detail::describe(array));
    }
    return fl::ustring(hx::hxGetChars(array));
}

bool isStringVector(const hxArray* array) noexcept {
    return array && hx::hxGetClassId(array) == matrix::ClassId::string;
}

std::vector<fl::ustring> extractFromStringVector(const hxArray* array) {
    matrix::detail::requireClass(array, matrix::ClassId::string);
    const auto* first = matrix::detail::payload<fl::ustring>(*array);
    return {first, first + hx::hxGetElementCount(array)};
}

void errorMustBeCellArray() {
    throw HostTypeError("argument must be a cell array of text or a string array");
}

void errorMustBeString(std::size_t index) {
    throw HostTypeError("element " + std::to_string(index) + " of the list must be text");
}

void detail::initStringDataTypes() {
    [[maybe_unused]] static const bool interned = [] {
        for (const DataType& type : dataTypes)
            internal::makeInterned(type.name);
        return true;
    }();
}

}  // namespace kobs::factory
