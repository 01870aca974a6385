// An event as a timeline shows it: small, since very many are in memory at once.
#pragma once

#include <cstdint>
#include <tuple>

namespace instrument::detail {

/// An event; or an instant, which ends when it starts.
struct LodEvent {
    // Marks.
    static constexpr std::uint32_t isInstant = 1;
    static constexpr std::uint32_t isOpen = 2;  ///< it had not ended: drawn to the last time
    static constexpr std::uint32_t stopsElsewhere = 4;  ///< its stop came from another thread
    static constexpr std::uint32_t overlaps = 8;        ///< it outlives what it began in

    std::int64_t start = 0;  ///< nanoseconds, as end
    std::int64_t end = 0;
    std::uint64_t serial = 0;
    std::uint32_t name = 0;  ///< the instrument's number
    std::uint32_t source = 0;
    std::uint32_t marks = 0;

    bool has(std::uint32_t mark) const noexcept { return (marks & mark) != 0; }
};

/// By start, of those that start at once the one that encloses first: as SelfTime and LodRows take
/// them.
inline bool enclosesFirst(const LodEvent& a, const LodEvent& b) noexcept {
    return std::tuple(a.start, b.end, a.source, a.serial) <
           std::tuple(b.start, a.end, b.source, b.serial);
}

}  // namespace instrument::detail
