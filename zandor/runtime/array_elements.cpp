// Elements of cell, struct and string arrays.
#include <stdexcept>
#include <utility>

#include "zandor/runtime/array_layout.hpp"
#include "zandor/runtime/factory.hpp"

namespace matrix::detail {

std::string describe(const hxArray* array) {
    if (!array)
        return "nothing";
    if (array->classId == ClassId::character)
        return "text";
    std::string name = hx::hxGetClassName(array->classId);
    const bool scalar = elementCount(*array) == 1 && hx::hxGetData(array);
    return scalar ? name : name + " array";
}

void requireClass(const hxArray* array, ClassId classId) {
    if (array && array->classId == classId)
        return;
    const bool text = classId == ClassId::character;
    const std::string wanted = text ? "text" : std::string(hx::hxGetClassName(classId)) + " array";
    throw kobs::factory::HostTypeError("expected " + wanted + ", got " + describe(array));
}

void requireIndex(const hxArray& array, std::size_t index) {
    const std::size_t count = elementCount(array);
    if (index < count)
        return;
    throw std::out_of_range("index " + std::to_string(index) + " is outside an array of " +
                            std::to_string(count) + (count == 1 ? " element" : " elements"));
}

namespace {

/// Puts `value` where `slot` is; what was there is destroyed.
void replace(hxArray*& slot, Array value) noexcept {
    if (slot == value.get()) {
        static_cast<void>(value.release());
    } else {
        destroyArray(std::exchange(slot, value.release()));
    }
}

std::size_t valueIndex(const hxArray* structure, std::size_t index, std::size_t field) {
    requireIndex(*structure, index);
    return index * fieldTable(*structure).size() + field;
}

std::size_t requireField(const hxArray* structure, const char* name) {
    requireClass(structure, ClassId::structure);
    const std::size_t field = name ? fieldTable(*structure).find(name) : FieldTable::npos;
    if (field == FieldTable::npos) {
        throw std::out_of_range("the struct array has no field \"" + std::string(name ? name : "") +
                                "\"");
    }
    return field;
}

void requireFieldNumber(const hxArray* structure, std::size_t field) {
    requireClass(structure, ClassId::structure);
    if (field < fieldTable(*structure).size())
        return;
    throw std::out_of_range("the struct array has no field number " + std::to_string(field));
}

}  // namespace

namespace noninlined::hx_array_api {

void hxSetCell(hxArray* cell, std::size_t index, hxArray* value) {
    Array owner(value);
    requireClass(cell, ClassId::cell);
    requireIndex(*cell, index);
    replace(payload<hxArray*>(*cell)[index], std::move(owner));
}

const hxArray* hxGetCell(const hxArray* cell, std::size_t index) {
    requireClass(cell, ClassId::cell);
    requireIndex(*cell, index);
    return payload<hxArray*>(*cell)[index];
}

void hxSetString(hxArray* strings, std::size_t index, std::u16string text) {
    requireClass(strings, ClassId::string);
    requireIndex(*strings, index);
    payload<std::u16string>(*strings)[index] = std::move(text);
}

std::u16string_view hxGetString(const hxArray* strings, std::size_t index) {
    requireClass(strings, ClassId::string);
    requireIndex(*strings, index);
    return payload<std::u16string>(*strings)[index];
}

void hxSetField(hxArray* structure, std::size_t index, const char* name, hxArray* value) {
    Array owner(value);
    const std::size_t field = requireField(structure, name);
    replace(fieldValues(*structure)[valueIndex(structure, index, field)], std::move(owner));
}

const hxArray* hxGetField(const hxArray* structure, std::size_t index, const char* name) {
    const std::size_t field = requireField(structure, name);
    return fieldValues(*structure)[valueIndex(structure, index, field)];
}

const hxArray* hxGetFieldByNumber(const hxArray* structure, std::size_t index, std::size_t field) {
    requireFieldNumber(structure, field);
    return fieldValues(*structure)[valueIndex(structure, index, field)];
}

std::size_t hxGetFieldCount(const hxArray* structure) {
    requireClass(structure, ClassId::structure);
    return fieldTable(*structure).size();
}

const char* hxGetFieldName(const hxArray* structure, std::size_t field) {
    requireFieldNumber(structure, field);
    return fieldTable(*structure).name(field);
}

std::ptrdiff_t hxGetFieldNumber(const hxArray* structure, std::string_view name) {
    requireClass(structure, ClassId::structure);
    const std::size_t field = fieldTable(*structure).find(name);
    return field == FieldTable::npos ? -1 : static_cast<std::ptrdiff_t>(field);
}

}  // namespace noninlined::hx_array_api
}  // namespace matrix::detail
