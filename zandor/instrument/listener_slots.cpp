#include "listener_slots.hpp"

#include <atomic>
#include <bit>

#include "zandor/instrument/listener_slot.hpp"

namespace instrument::detail {
namespace {

// Relaxed: only distinctness counts.
constinit std::atomic<std::uint64_t> latestNumber{0};
constinit std::atomic<std::uint32_t> takenSlots{0};

}  // namespace

std::size_t takeListenerSlot() noexcept {
    std::uint32_t taken = takenSlots.load(std::memory_order_relaxed);
    for (;;) {
        const auto slot = static_cast<std::size_t>(std::countr_one(taken));
        if (slot >= listenerSlots)
            return listenerSlots;
        if (takenSlots.compare_exchange_weak(taken, taken | 1u << slot, std::memory_order_relaxed))
            return slot;
    }
}

void freeListenerSlot(std::size_t slot) noexcept {
    if (slot < listenerSlots)
        takenSlots.fetch_and(~(1u << slot), std::memory_order_relaxed);
}

std::uint64_t nextListenerNumber() noexcept {
    return latestNumber.fetch_add(1, std::memory_order_relaxed) + 1;
}

}  // namespace instrument::detail
