// How much memory this process has.
#pragma once

#include <malloc.h>
#include <unistd.h>

#include <cstddef>
#include <fstream>

namespace memory_tests {

/// Bytes of this process's own that lie in memory, not in files.
inline std::size_t residentBytes() {
    std::size_t all = 0, resident = 0, fromFiles = 0;
    std::ifstream("/proc/self/statm") >> all >> resident >> fromFiles;
    return (resident - fromFiles) * static_cast<std::size_t>(getpagesize());
}

/// Bytes that were allocated and not freed.
inline std::size_t allocatedBytes() {
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

}  // namespace memory_tests
