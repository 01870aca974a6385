#include "vantrace/performance/libraries.hpp"

#include <stdexcept>

namespace vantrace {

namespace {

/// The loader takes zero-terminated names.
void load(const std::string& name, int& status, Performance::LibraryLoader loader) {
    if (name.find('\0') != std::string::npos)
        throw std::invalid_argument("library name: expected text without a NUL character");
    Performance::loadLibraryTimed(name.c_str(), status, loader);
}

}  // namespace

void loadOne(const std::string& name, Performance::LibraryLoader loader) {
    int status = 0;
    load(name, status, loader);
}

void loadEach(const Strings& names, Performance::LibraryLoader loader) {
    int status = 0;
    for (const std::string& name : names)
        load(name, status, loader);
}

}  // namespace vantrace
