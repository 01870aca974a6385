// Python objects as host values.
#pragma once

#include <optional>

#include "python_api.hpp"
#include "zandor/runtime/zandor.hpp"

namespace vantrace {

/// The host value that an object is by nature, whatever the method's signature says:
///
///   None -> nothing, bool -> logical, int and other objects with __index__ -> integer, float and
///   other objects with __float__ -> real, str -> text, a sequence of only str -> list of strings,
///   another sequence -> cell array, dict -> list of strings that alternate between keys and values
///
/// Nothing for anything else, bytes included.
std::optional<zandor::Value> toValue(PyObject* object);

/// The text of a context value: str as it is, numbers as the host writes them, the rest by str().
Ref contextText(PyObject* value);

}  // namespace vantrace
