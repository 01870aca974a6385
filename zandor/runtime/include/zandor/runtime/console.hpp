// The host's console.
#pragma once

#include <cstddef>

#include "zandor/runtime/export.hpp"

/// Printf-style output to the host's console; returns the number of bytes, or a negative
/// number when formatting or writing failed. Safe from any thread. Text is written whole: lines of
/// two threads do not mix inside one call.
ZANDOR_RUNTIME_API int utPrintf(const char* format, ...) __attribute__((format(printf, 1, 2)));

namespace zandor {

/// Receives each console text. It must not throw; a negative result means that the text was
/// not written.
using ConsoleSink = int (*)(const char* text, std::size_t length) noexcept;

/// Puts `sink` in place of the present one, which is returned; null gives back the first one,
/// which writes to file descriptor 1.
ZANDOR_RUNTIME_API ConsoleSink setConsoleSink(ConsoleSink sink) noexcept;

}  // namespace zandor
