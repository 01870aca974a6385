// Memory that a child reads as zero after fork.
//
// What must not be carried into a child (who holds a lock, which threads there are, what they
// recorded) stands in such memory, and all-zero is its valid first state: locks open, lists empty.
// So nothing is locked or waited for at a fork, and no handler runs. Where the kernel refuses to
// wipe pages, a handler in the child clears them.
#pragma once

#include <cstddef>
#include <new>
#include <type_traits>

#include "zandor/instrument/export.hpp"

namespace instrument::detail {

/// Maps zeroed memory; null when the system gives none. Safe in signal handlers.
ZANDOR_INSTRUMENT_API void* mapMemory(std::size_t size) noexcept;
ZANDOR_INSTRUMENT_API void unmapMemory(void* memory, std::size_t size) noexcept;

enum class Wiping {
    kernel,   ///< by the kernel where it can, else by the handler
    handler,  ///< by the handler in the child, for tests of that
};

/// Has the whole pages from `memory` on wiped in children.
ZANDOR_INSTRUMENT_API void wipeOnFork(void* memory, std::size_t size,
                                      Wiping wiping = Wiping::kernel) noexcept;
/// To be said before such memory is unmapped.
ZANDOR_INSTRUMENT_API void forgetWiping(void* memory) noexcept;

/// A T of its own mapping that is new and empty in a child.
template <class T>
class ForkPrivate {
    static_assert(std::is_trivially_destructible_v<T>, "a child never destroys what it lost");

  public:
    /// Throws std::bad_alloc.
    ForkPrivate() {
        void* memory = mapMemory(sizeof(T));
        if (!memory)
            throw std::bad_alloc();
        wipeOnFork(memory, sizeof(T));
        value_ = ::new (memory) T();
    }
    ~ForkPrivate() {
        forgetWiping(value_);
        unmapMemory(value_, sizeof(T));
    }
    ForkPrivate(const ForkPrivate&) = delete;
    ForkPrivate& operator=(const ForkPrivate&) = delete;

    T& operator*() const noexcept { return *value_; }
    T* operator->() const noexcept { return value_; }

  private:
    T* value_;
};

}  // namespace instrument::detail
