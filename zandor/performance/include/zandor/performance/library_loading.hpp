// Loading a shared library, timed, with a line on the task manager's log.
#pragma once

#include "zandor/performance/export.hpp"

namespace Performance {

/// As utLoadLibrary: null is a failure, and `status` may be written.
using LibraryLoader = void* (*)(const char* name, int* status);

/// Loads `name` with `loader` and keeps it loaded. With the task manager's logging on it writes
/// "[%s] loaded in %d microseconds\n" when the status is 0 and there is a handle, else
/// "utLoadLibrary(%s) failed with error status: %d, %s\n". `status` is not set before the call. A
/// failed load is no error.
ZANDOR_PERFORMANCE_API void loadLibraryTimed(const char* name, int& status, LibraryLoader loader);

}  // namespace Performance
