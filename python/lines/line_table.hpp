// The interpreter's table of the lines that a code object's instructions stand on.
#pragma once

#include <cstddef>
#include <span>

namespace vantrace {

/// The line of the instruction at an offset in bytes; 0 where the table tells none. The table is
/// not trusted.
int lineAt(std::span<const std::byte> table, int firstLine, std::size_t offset) noexcept;

}  // namespace vantrace
