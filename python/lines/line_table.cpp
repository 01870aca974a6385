#include "line_table.hpp"

#include <algorithm>

namespace vantrace {

namespace {

// An entry begins with a byte whose highest bit is set: its kind in 4 bits, then one less than the
// number of instructions that it is of in 3. Other bytes of the entry have the bit clear.
constexpr unsigned entryBit = 0x80;
constexpr std::size_t instructionBytes = 2;
enum Kind : unsigned { oneLine0 = 10, oneLine2 = 12, noColumns = 13, longForm = 14, none = 15 };

/// Six bits a byte, the lowest first; the seventh says that more follow. The lowest bit of all is
/// the sign.
int signedNumber(std::span<const std::byte> bytes) noexcept {
    unsigned value = 0;
    unsigned shift = 0;
    for (const std::byte byte : bytes) {
        value |= (std::to_integer<unsigned>(byte) & 63) << shift;
        shift += 6;
        if ((std::to_integer<unsigned>(byte) & 64) == 0 || shift > 24)
            break;
    }
    const int size = static_cast<int>(value >> 1);
    return value & 1 ? -size : size;
}

int linesAhead(unsigned kind, std::span<const std::byte> rest) noexcept {
    if (kind == noColumns || kind == longForm)
        return signedNumber(rest);
    return kind >= oneLine0 && kind <= oneLine2 ? static_cast<int>(kind - oneLine0) : 0;
}

}  // namespace

int lineAt(std::span<const std::byte> table, int firstLine, std::size_t offset) noexcept {
    int line = firstLine;
    std::size_t end = 0;
    while (!table.empty()) {
        const auto head = std::to_integer<unsigned>(table[0]);
        const unsigned kind = head >> 3 & 15;
        line += linesAhead(kind, table.subspan(1));
        end += ((head & 7) + 1) * instructionBytes;
        if (offset < end)
            return kind == none ? 0 : line;
        const auto next = std::find_if(table.begin() + 1, table.end(), [](std::byte byte) {
            return (std::to_integer<unsigned>(byte) & entryBit) != 0;
        });
        table = table.subspan(static_cast<std::size_t>(next - table.begin()));
    }
    return 0;
}

}  // namespace vantrace
