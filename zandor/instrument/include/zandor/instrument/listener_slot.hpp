// What a thread keeps for a listener, as ListenerData finds it.
#pragma once

#include <cstddef>
#include <cstdint>

namespace instrument::detail {

/// All-zero is none. Only the thread itself uses it; a state that goes to another thread comes with
/// all of them zero.
struct ListenerSlot {
    /// The listener's number, never used again; another one, or 0, means that the slot is stale.
    std::uint64_t number;
    void* data;
};

/// How many listeners have one. One more follows, which stays empty: that of all the others.
inline constexpr std::size_t listenerSlots = 8;

}  // namespace instrument::detail
