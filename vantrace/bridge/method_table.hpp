// Tables of methods: what a namespace publishes, in order.
//
//   constinit const MethodRow rows[] = {{"has", has}, {"enable", enable}};
//   constinit const MethodTable controlsMethods = rows;
//
// Each shape of function that can be bound is one alternative of PlainFunction; the binding is
// instantiated for these, in one place.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "zandor/runtime/factory.hpp"
#include "zandor/runtime/text.hpp"

namespace vantrace {

using Strings = std::vector<std::string>;
/// Result type of functions that make a struct, a cell or another composed host value.
using Composed = kobs::factory::hxArrayProxy;

template <typename... Functions>
using PointerToOneOf = std::variant<Functions*...>;

/// A pointer to a function of one of the shapes that the library binds.
using PlainFunction = PointerToOneOf<
    // with a text or a list of texts as result
    fl::ustring(const fl::ustring&), Strings(),
    // with a composed host value as result
    Composed(const std::string&), Composed(const std::string&, const Strings&), Composed(double),
    Composed(),
    // without result
    void(const std::string&, const std::string&), void(const std::string&),
    void(const std::string&, const Strings&),
    void(const std::string&, const Strings&, std::uint64_t, std::uint64_t), void(const Strings&),
    void(std::int32_t), void(double), void(const char*), void(), void(std::uint64_t), void(bool),
    // with a scalar as result
    std::int32_t(), std::uint64_t(), bool(const std::string&), bool()>;

struct MethodRow {
    const char* name;
    PlainFunction function;
};

using MethodTable = std::span<const MethodRow>;

/// The method object of a row, or null when the host's allocation operator yields nothing. The
/// caller owns it.
kobs::COSMethodInfo* createMethod(const MethodRow& row,
                                  const kobs::factory::MethodAttributes& attributes);

}  // namespace vantrace
