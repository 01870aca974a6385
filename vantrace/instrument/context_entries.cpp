#include "vantrace/instrument/context_entries.hpp"

#include <cstddef>
#include <stdexcept>

namespace vantrace {

using instrument::ContextEntry;

ContextEntry makeContextEntry(const std::vector<std::string>& list) {
    if (list.size() != 2)
        throw std::invalid_argument("makeContextEntry takes exactly two strings.");
    return {list[0], list[1]};
}

std::vector<ContextEntry> makeContextEntries(const std::vector<std::string>& list) {
    if (list.size() % 2 != 0)
        throw std::invalid_argument("makeContextEntries takes name/value pairs of strings.");
    std::vector<ContextEntry> entries;
    entries.reserve(list.size() / 2);
    for (std::size_t index = 0; index < list.size(); index += 2)
        entries.push_back({list[index], list[index + 1]});
    return entries;
}

}  // namespace vantrace
