#include "zandor/instrument/fork_private.hpp"

#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstring>

namespace instrument::detail {
namespace {

// Ranges that the handler clears; nodes stay, and a forgotten one is used again.
struct Range {
    std::atomic<void*> memory;
    std::size_t size;
    Range* next;
};
// Released in addRange, acquired by all who go through them.
constinit std::atomic<Range*> ranges{nullptr};
constinit std::atomic<bool> handlerInstalled{false};

std::size_t wholePages(std::size_t size) noexcept {
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    return (size + page - 1) / page * page;
}

void clearRanges() noexcept {
    // Pairs with the release in addRange.
    for (Range* range = ranges.load(std::memory_order_acquire); range; range = range->next)
        if (void* memory = range->memory.load(std::memory_order_acquire))
            std::memset(memory, 0, range->size);
}

bool reuseRange(void* memory, std::size_t size) noexcept {
    for (Range* range = ranges.load(std::memory_order_acquire); range; range = range->next) {
        void* expected = nullptr;
        if (range->size == size && range->memory.compare_exchange_strong(expected, memory))
            return true;
    }
    return false;
}

void addRange(void* memory, std::size_t size) noexcept {
    if (!handlerInstalled.exchange(true))
        pthread_atfork(nullptr, nullptr, clearRanges);
    if (reuseRange(memory, size))
        return;
    void* node = mapMemory(sizeof(Range));
    if (!node)
        return;
    auto* range = ::new (node) Range{{memory}, size, ranges.load()};
    // Pairs with the acquire in clearRanges and reuseRange.
    while (!ranges.compare_exchange_weak(range->next, range, std::memory_order_release)) {
    }
}

}  // namespace

void* mapMemory(std::size_t size) noexcept {
    void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return memory == MAP_FAILED ? nullptr : memory;
}

void unmapMemory(void* memory, std::size_t size) noexcept {
    munmap(memory, size);
}

void wipeOnFork(void* memory, std::size_t size, Wiping wiping) noexcept {
    size = wholePages(size);
    if (wiping == Wiping::handler || madvise(memory, size, MADV_WIPEONFORK) != 0)
        addRange(memory, size);
}

void forgetWiping(void* memory) noexcept {
    for (Range* range = ranges.load(std::memory_order_acquire); range; range = range->next) {
        void* expected = memory;
        range->memory.compare_exchange_strong(expected, nullptr);
    }
}

}  // namespace instrument::detail
