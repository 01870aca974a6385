// Calling the published methods by name, and reading what they give.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "vantrace/module/entry.hpp"
#include "zandor/runtime/zandor.hpp"

namespace vantrace_testing {

/// The method of a dotted name below the root.
inline zandor::Method method(std::string_view name) {
    ZDInitialize_vantrace();
    return zandor::resolve("performance." + std::string(name), zandor::Door::privateToo);
}

template <typename... Values>
zandor::Value call(std::string_view name, Values&&... values) {
    return method(name)(std::forward<Values>(values)...);
}

inline zandor::Value text(std::string_view utf8) {
    return zandor::Value::text(utf8);
}
inline zandor::Value texts(const std::vector<std::string>& list) {
    return zandor::Value::texts(list);
}

using Shape = std::pair<std::size_t, std::size_t>;
inline Shape shapeOf(const hxArray* array) {
    return {matrix::hx::hxGetRows(array), matrix::hx::hxGetColumns(array)};
}

inline std::vector<std::string> fieldsOf(const hxArray* structure) {
    std::vector<std::string> names;
    for (std::size_t field = 0; field < matrix::hx::hxGetFieldCount(structure); ++field)
        names.emplace_back(matrix::hx::hxGetFieldName(structure, field));
    return names;
}

inline std::string textIn(const hxArray* structure, std::size_t element, const char* field) {
    return matrix::hx::hxArrayToStdString(matrix::hx::hxGetField(structure, element, field));
}

/// The only element of a field's numeric array.
template <typename Number = double>
Number numberIn(const hxArray* structure, std::size_t element, const char* field) {
    const hxArray* value = matrix::hx::hxGetField(structure, element, field);
    return *static_cast<const Number*>(matrix::hx::hxGetData(value));
}

}  // namespace vantrace_testing
