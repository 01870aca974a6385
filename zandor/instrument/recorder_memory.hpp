// Where event memory comes from, and how much of it a recorder may take.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>

#include "zandor/instrument/export.hpp"

namespace instrument::detail {

/// Gives and takes whole pages. Tests replace it to see what a recorder does without memory.
struct PageSource {
    /// Zeroed pages that a child after fork does not have; null when the system gives none. From 2
    /// MiB on aligned to 2 MiB and open to huge pages.
    void* (*map)(std::size_t bytes) noexcept;
    void (*unmap)(void* pages, std::size_t bytes) noexcept;
};
ZANDOR_INSTRUMENT_API extern PageSource pageSource;

constexpr std::size_t pageBytes = 4096;
constexpr std::size_t hugePageBytes = std::size_t{2} << 20;

constexpr std::size_t roundUp(std::size_t bytes, std::size_t unit) noexcept {
    return (bytes + unit - 1) / unit * unit;
}

/// The least memory limit of the control groups that `processGroups` (as /proc/self/cgroup) names
/// below `mount` (as /sys/fs/cgroup), of version 2 or 1; the largest number when there is none.
ZANDOR_INSTRUMENT_API std::uint64_t groupMemoryLimit(const std::filesystem::path& processGroups,
                                                     const std::filesystem::path& mount);

/// A quarter of the machine's memory, or of this process's group's limit where that is less.
std::size_t defaultMaxBytes();

}  // namespace instrument::detail
