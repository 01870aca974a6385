#include "selection.hpp"

#include <fnmatch.h>

#include <algorithm>

namespace vantrace {

namespace {

bool matches(const std::vector<std::string>& patterns, const std::string& name) noexcept {
    return std::any_of(patterns.begin(), patterns.end(), [&](const std::string& pattern) {
        return fnmatch(pattern.c_str(), name.c_str(), 0) == 0;
    });
}

}  // namespace

bool Selection::isLibrary(std::string_view file) const noexcept {
    if (file.find("/site-packages/") != file.npos || file.find("/dist-packages/") != file.npos ||
        file.starts_with("<frozen "))
        return true;
    return std::any_of(libraries.begin(), libraries.end(),
                       [&](const std::string& folder) { return file.starts_with(folder); });
}

bool Selection::isRecorded(const std::string& name, bool ofLibrary) const noexcept {
    if (matches(exclude, name))
        return false;
    if (!include.empty())
        return matches(include, name);
    return withLibraries || !ofLibrary;
}

}  // namespace vantrace
