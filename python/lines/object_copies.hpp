// What objects of the interpreter hold, copied without its lock.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "../src/python_api.hpp"

namespace vantrace {

/// The text of a str as UTF-8; empty where there is none of sensible length.
std::optional<std::string> copyText(const PyObject* str);
/// The content of a bytes object; empty where there is none of sensible length.
std::optional<std::vector<std::byte>> copyBytes(const PyObject* bytes);

}  // namespace vantrace
