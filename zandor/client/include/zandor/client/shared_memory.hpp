// Memory that is shared between a client and a host: each is written by the one that made it, and
// only read by the other. Made by system calls alone, so that a signal handler may.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>

namespace zandor::client {

/// A mapping; null memory is none.
struct Mapping {
    void* memory = nullptr;
    std::size_t bytes = 0;
    explicit operator bool() const noexcept { return memory != nullptr; }
    template <class T>
    T* as() const noexcept {
        return static_cast<T*>(memory);
    }
};

/// Memory to share, with the descriptor to pass.
struct SharedMemory {
    Mapping mapping;
    int descriptor = -1;
};

namespace detail {

/// A file beyond this limit is a signal rather than an error.
inline bool isWithinFileLimit(std::size_t bytes) noexcept {
    rlimit limit{};
    return getrlimit(RLIMIT_FSIZE, &limit) == 0 &&
           (limit.rlim_cur == RLIM_INFINITY || bytes <= limit.rlim_cur);
}

inline bool reserve(int file, std::size_t bytes) noexcept {
    const auto length = static_cast<off_t>(bytes);
    return isWithinFileLimit(bytes) && ftruncate(file, length) == 0 &&
           fallocate(file, 0, 0, length) == 0;
}

inline bool seal(int file) noexcept {
    constexpr int sized = F_SEAL_SHRINK | F_SEAL_GROW;
    // Kernels before 5.1 do not know of later writers: the reader copes with those.
    fcntl(file, F_ADD_SEALS, F_SEAL_FUTURE_WRITE);
    return fcntl(file, F_ADD_SEALS, sized | F_SEAL_SEAL) == 0;
}

inline Mapping map(int file, std::size_t bytes, int protection) noexcept {
    void* memory = mmap(nullptr, bytes, protection, MAP_SHARED, file, 0);
    if (memory == MAP_FAILED)
        return {};
    madvise(memory, bytes, MADV_DONTFORK);
    return {memory, bytes};
}

}  // namespace detail

/// Zeroed memory of the process's own, zero again in a child after fork.
inline Mapping mapPrivate(std::size_t bytes) noexcept {
    void* memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        return {};
    madvise(memory, bytes, MADV_WIPEONFORK);
    return {memory, bytes};
}

inline void unmap(Mapping& mapping) noexcept {
    // In this order: a signal handler must not find what is gone.
    const Mapping gone = mapping;
    mapping = {};
    if (gone)
        munmap(gone.memory, gone.bytes);
}

/// Reserved as a whole, sealed against any change of size and any writer but this mapping, and not
/// mapped in children. Nothing where the system refuses it.
inline SharedMemory makeShared(const char* name, std::size_t bytes) noexcept {
    const int file = memfd_create(name, MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (file < 0)
        return {};
    if (detail::reserve(file, bytes)) {
        Mapping mapping = detail::map(file, bytes, PROT_READ | PROT_WRITE);
        if (mapping && detail::seal(file))
            return {mapping, file};
        unmap(mapping);
    }
    close(file);
    return {};
}

/// Maps what another process made, for reading; nothing unless it has exactly that size for good.
inline Mapping mapForReading(int descriptor, std::size_t bytes) noexcept {
    const int seals = fcntl(descriptor, F_GET_SEALS);
    struct stat status;
    if (seals < 0 || !(seals & F_SEAL_SHRINK) || fstat(descriptor, &status) != 0 ||
        status.st_size != static_cast<off_t>(bytes))
        return {};
    return detail::map(descriptor, bytes, PROT_READ);
}

}  // namespace zandor::client
