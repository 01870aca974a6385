// The shared objects of the process.
#pragma once

#include <string>
#include <vector>

#include "zandor/performance/export.hpp"

namespace Performance {

/// Absolute paths of the executable and of every library loaded now, in load order, the executable
/// first. The page that the kernel maps into every process is not one of them. From any thread.
ZANDOR_PERFORMANCE_API std::vector<std::string> GetModuleListForCurrentProcess();

}  // namespace Performance
