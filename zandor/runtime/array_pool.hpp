// Memory of arrays. Small blocks come from per-thread caches over a shared depot, large ones from
// malloc. Under the address and thread sanitizers all come from malloc, so that a misuse is seen.
#pragma once

#include <cstddef>
#include <cstdint>

namespace matrix::detail {

struct Block {
    void* memory;
    std::uint32_t sizeClass;
};

/// A block of at least `size` bytes, aligned for any type; std::bad_alloc when there is none.
Block allocateBlock(std::size_t size);
void freeBlock(Block block) noexcept;

/// Blocks that are allocated and not freed, of all threads.
std::size_t liveBlockCount() noexcept;

}  // namespace matrix::detail
