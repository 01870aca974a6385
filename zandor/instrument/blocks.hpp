// Small memory without malloc, since events may come from a signal handler that interrupted it.
#pragma once

#include <atomic>
#include <cstddef>
#include <new>

namespace instrument::detail {

/// At least `size` bytes, aligned to 16; null when the system gives none. Freed with the same size.
void* allocateBlock(std::size_t size) noexcept;
void freeBlock(void* block, std::size_t size) noexcept;

/// The same as an allocator.
template <class T>
struct BlockAllocator {
    using value_type = T;
    BlockAllocator() noexcept = default;
    template <class U>
    BlockAllocator(const BlockAllocator<U>&) noexcept {}
    T* allocate(std::size_t count) {
        if (void* block = allocateBlock(count * sizeof(T)))
            return static_cast<T*>(block);
        throw std::bad_alloc();
    }
    void deallocate(T* block, std::size_t count) noexcept { freeBlock(block, count * sizeof(T)); }
    bool operator==(const BlockAllocator&) const noexcept { return true; }
};

/// Memory that stays for the life of the process, handed out piece by piece. Guarded by its user's
/// lock.
class Arena {
  public:
    constexpr Arena() noexcept = default;
    /// Aligned to 8; null when the system gives none.
    void* allocate(std::size_t size) noexcept;

  private:
    // Relaxed under the lock. Written in an order in which a fork at any instant loses one piece at
    // most: release keeps that order, and being copied by the fork is what acquires.
    std::atomic<std::byte*> next_{nullptr};
    std::atomic<std::size_t> left_{0};
};

}  // namespace instrument::detail
