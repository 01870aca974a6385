// A file's bytes at an offset, however many calls that takes.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>

namespace instrument::detail {

/// False where the file ends before, or cannot be read.
inline bool readAt(int descriptor, std::uint64_t offset, void* out, std::size_t bytes) noexcept {
    auto* to = static_cast<std::byte*>(out);
    while (bytes > 0) {
        const ssize_t got = pread(descriptor, to, bytes, static_cast<off_t>(offset));
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return false;
        to += got;
        offset += static_cast<std::uint64_t>(got);
        bytes -= static_cast<std::size_t>(got);
    }
    return true;
}

}  // namespace instrument::detail
