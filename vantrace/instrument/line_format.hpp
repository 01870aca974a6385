// Formatting of console lines, which are mostly of a few simple conversions.
#pragma once

#include <cstdarg>
#include <cstddef>

namespace vantrace {

/// What std::vsnprintf does; several times faster where a format has no other conversions than %s,
/// %llu and %lld, perhaps with a width and a '-', and %%.
int formatLine(char* line, std::size_t size, const char* format, std::va_list arguments)
    __attribute__((format(printf, 3, 0)));

}  // namespace vantrace
