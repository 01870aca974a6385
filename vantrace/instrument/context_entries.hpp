// Context entries from the host's lists of strings.
//
// An entry's name is a view of a string of the list, so that the list must live until the last use
// of the entry. A list that would be gone at once is refused by the compiler.
#pragma once

#include <string>
#include <vector>

#include "zandor/instrument/context.hpp"

namespace vantrace {

/// The entry of a list {name, value}. Throws std::invalid_argument for any other count.
instrument::ContextEntry makeContextEntry(const std::vector<std::string>& list);
instrument::ContextEntry makeContextEntry(std::vector<std::string>&& list) = delete;

/// The entries of a list {name, value, name, value, ...}, in its order; equal names are kept.
/// Throws std::invalid_argument for an odd count.
std::vector<instrument::ContextEntry> makeContextEntries(const std::vector<std::string>& list);
std::vector<instrument::ContextEntry> makeContextEntries(std::vector<std::string>&& list) = delete;

}  // namespace vantrace
