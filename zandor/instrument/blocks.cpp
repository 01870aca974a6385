#include "blocks.hpp"

#include <bit>
#include <utility>

#include "process_state.hpp"
#include "zandor/instrument/fork_private.hpp"

namespace instrument::detail {
namespace {

constexpr std::size_t largestBlock = std::size_t{32} << (ProcessState::blockSizes - 1);
constexpr std::size_t blockRegion = 64 * 1024;

std::size_t sizeClass(std::size_t size) noexcept {
    return static_cast<std::size_t>(std::bit_width((size - 1) / 32));
}

void* carve(ProcessState& state, std::size_t size) noexcept {
    if (static_cast<std::size_t>(state.regionEnd - state.regionNext) < size) {
        auto* region = static_cast<std::byte*>(mapMemory(blockRegion));
        if (!region)
            return nullptr;
        state.regionNext = region;
        state.regionEnd = region + blockRegion;
    }
    return std::exchange(state.regionNext, state.regionNext + size);
}

}  // namespace

void* allocateBlock(std::size_t size) noexcept {
    if (size > largestBlock)
        return mapMemory(size);
    const std::size_t index = sizeClass(size);
    ProcessState& state = processState();
    const Locked locked(state.blocks);
    if (FreeBlock* block = state.freeBlocks[index])
        return std::exchange(state.freeBlocks[index], block->next);
    return carve(state, std::size_t{32} << index);
}

void freeBlock(void* block, std::size_t size) noexcept {
    if (size > largestBlock)
        return unmapMemory(block, size);
    ProcessState& state = processState();
    const Locked locked(state.blocks);
    FreeBlock*& head = state.freeBlocks[sizeClass(size)];
    head = ::new (block) FreeBlock{head};
}

void* Arena::allocate(std::size_t size) noexcept {
    constexpr std::size_t region = 256 * 1024;
    size = (size + 7) & ~std::size_t{7};
    if (size > region / 4)
        return mapMemory(size);
    std::size_t left = left_.load(std::memory_order_relaxed);
    if (left < size) {
        auto* memory = static_cast<std::byte*>(mapMemory(region));
        if (!memory)
            return nullptr;
        left_.store(0, std::memory_order_release);
        next_.store(memory, std::memory_order_release);
        left = region;
    }
    std::byte* piece = next_.load(std::memory_order_relaxed);
    left_.store(left - size, std::memory_order_release);
    next_.store(piece + size, std::memory_order_release);
    return piece;
}

}  // namespace instrument::detail
