// Shared libraries of the process.
#pragma once

#include "zandor/runtime/export.hpp"

/// Loads a shared library by name or path (UTF-8) and keeps it for the life of the process.
/// Always writes `status`: 0 on success, another number on failure, when the result is null and
/// utLastLibraryError has the loader's words. A null or empty name is a failure.
ZANDOR_RUNTIME_API void* utLoadLibrary(const char* name, int* status);

/// The message of the calling thread's last failed load; empty when there was none. The text
/// stays until that thread's next load.
ZANDOR_RUNTIME_API const char* utLastLibraryError();
