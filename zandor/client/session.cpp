#include "session.hpp"

namespace zandor::client {

namespace {

std::atomic_ref<std::uint32_t> ringOf(const Session& session, std::uint32_t slot) noexcept {
    return std::atomic_ref(session.slotRings.as<std::uint32_t>()[slot]);
}

}  // namespace

bool Session::takeSlot(std::uint32_t& slot, std::uint32_t& ring) noexcept {
    // Relaxed, each: only distinctness counts, and nothing is handed over with a slot.
    ring = rings.fetch_add(1, std::memory_order_relaxed) + 1;
    for (std::uint32_t tried = 0; tried < ringSlots; ++tried) {
        slot = (ring + tried) % ringSlots;
        std::uint32_t latest = ringOf(*this, slot).load(std::memory_order_relaxed);
        if (latest != readShared(this->slot(slot).released))
            continue;  // its ring is not read to the end
        if (ringOf(*this, slot).compare_exchange_strong(latest, ring, std::memory_order_relaxed))
            return true;
    }
    return false;
}

void Session::giveBackSlot(std::uint32_t slot) noexcept {
    // Relaxed: as in takeSlot.
    ringOf(*this, slot).store(readShared(this->slot(slot).released), std::memory_order_relaxed);
}

}  // namespace zandor::client
