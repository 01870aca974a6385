// Libraries loaded by name, timed and logged.
#pragma once

#include <string>

#include "vantrace/bridge/method_table.hpp"
#include "zandor/performance/library_loading.hpp"

namespace vantrace {

/// One library, with a status of its own.
void loadOne(const std::string& name, Performance::LibraryLoader loader);

/// Each of the names in turn. They share one status, cleared before the first: each sees what the
/// loader stored last.
void loadEach(const Strings& names, Performance::LibraryLoader loader);

}  // namespace vantrace
