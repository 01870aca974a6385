// The host's data-type name of each plain type that a bound function may take or give.
#pragma once

#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

#include "zandor/runtime/factory.hpp"
#include "zandor/runtime/text.hpp"

namespace vantrace {

/// The name of a value type, whether it is passed by value or by reference.
template <typename Plain>
constexpr const char* dataTypeName();

template <>
constexpr const char* dataTypeName<void>() {
    return "void";
}
template <>
constexpr const char* dataTypeName<bool>() {
    return "logical scalar";
}
template <>
constexpr const char* dataTypeName<std::int32_t>() {
    return "int32 scalar";
}
template <>
constexpr const char* dataTypeName<std::uint64_t>() {
    return "uint64 scalar";
}
template <>
constexpr const char* dataTypeName<double>() {
    return "double scalar";
}
template <>
constexpr const char* dataTypeName<std::string>() {
    return "char";
}
template <>
constexpr const char* dataTypeName<const char*>() {
    return "char";
}
template <>
constexpr const char* dataTypeName<fl::ustring>() {
    return "KobsFactoryString scalar";
}
template <>
constexpr const char* dataTypeName<std::vector<std::string>>() {
    return "KobsFactoryString vector";
}
template <>
constexpr const char* dataTypeName<kobs::factory::hxArrayProxy>() {
    return "any";
}

/// The name of a parameter or result type as the bound function declares it.
template <typename Declared>
constexpr const char* declaredTypeName() {
    return dataTypeName<std::remove_cvref_t<Declared>>();
}

}  // namespace vantrace
