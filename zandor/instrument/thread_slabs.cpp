#include "thread_slabs.hpp"

#include <bit>
#include <new>

#include "zandor/instrument/fork_private.hpp"

namespace instrument::detail {
namespace {

constexpr std::size_t headSize = 4096;
constexpr std::uint64_t allUsed = ~std::uint64_t{0};

/// The wiped part.
struct States {
    // A bit a state. Whoever gives one back releases it; whoever takes or visits it acquires.
    alignas(64) std::atomic<std::uint64_t> used;
    ThreadState states[64];
};

/// The first page, which a child keeps.
struct Slab {
    States* wiped;
    Slab* next;
};
// Released by addSlab, acquired by who goes through them.
constinit std::atomic<Slab*> slabs{nullptr};

Slab* mapSlab() noexcept {
    auto* memory = static_cast<std::byte*>(mapMemory(headSize + sizeof(States)));
    if (!memory)
        return nullptr;
    wipeOnFork(memory + headSize, sizeof(States));
    return ::new (memory) Slab{reinterpret_cast<States*>(memory + headSize), nullptr};
}

bool addSlab() noexcept {
    Slab* slab = mapSlab();
    if (!slab)
        return false;
    slab->next = slabs.load(std::memory_order_relaxed);
    // Pairs with the acquire in takeThreadState and visitThreads.
    while (!slabs.compare_exchange_weak(slab->next, slab, std::memory_order_release)) {
    }
    return true;
}

ThreadState* takeFrom(States& wiped) noexcept {
    std::uint64_t used = wiped.used.load(std::memory_order_relaxed);
    while (used != allUsed) {
        const int free = std::countr_one(used);
        // Acquire pairs with the release in giveBackThreadState.
        if (wiped.used.compare_exchange_weak(used, used | std::uint64_t{1} << free,
                                             std::memory_order_acq_rel))
            return &wiped.states[free];
    }
    return nullptr;
}

}  // namespace

ThreadState* takeThreadState() noexcept {
    do {
        for (Slab* slab = slabs.load(std::memory_order_acquire); slab; slab = slab->next)
            if (ThreadState* state = takeFrom(*slab->wiped))
                return state;
    } while (addSlab());
    return nullptr;
}

void giveBackThreadState(ThreadState& state) noexcept {
    for (Slab* slab = slabs.load(std::memory_order_acquire); slab; slab = slab->next) {
        ThreadState* first = slab->wiped->states;
        if (&state >= first && &state < first + 64)
            slab->wiped->used.fetch_and(~(std::uint64_t{1} << (&state - first)),
                                        std::memory_order_release);
    }
}

void visitThreads(void (*visitor)(ThreadState&, void*), void* context) {
    for (Slab* slab = slabs.load(std::memory_order_acquire); slab; slab = slab->next)
        for (std::uint64_t used = slab->wiped->used.load(std::memory_order_acquire); used;
             used &= used - 1)
            visitor(slab->wiped->states[std::countr_zero(used)], context);
}

}  // namespace instrument::detail
