// The registered listeners as delivery sees them: an array that is never changed, only replaced.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "thread_state.hpp"
#include "zandor/instrument/listener.hpp"

namespace instrument::detail {

class RecorderCore;

/// A listener's stay among the registered ones. Shared by the arrays that hold it.
struct Registration {
    InstrumentListener* listener;
    const ShortWay* shortWay;  ///< null where it has none, and of a recorder
    std::uint32_t arrays;      ///< that hold it; under the listeners' lock
    /// No new call may begin. Released by the removal, acquired by who skips the listener; relaxed
    /// under the listeners' lock.
    std::atomic<bool> removed;
};

/// In order of registration; the pointers follow the head.
struct ListenerArray {
    std::uint32_t count;
    ListenerArray* nextRetired;
    // Before it is published.
    bool isShort;  ///< at most one recorder, and each of the others has a short way
    const RecorderCore* recorder;

    Registration* const* begin() const noexcept {
        return reinterpret_cast<Registration* const*>(this + 1);
    }
    Registration* const* end() const noexcept { return begin() + count; }
};

/// Null when nobody is registered. Each release pairs with the acquire of who delivers; relaxed
/// under the listeners' lock, or where only null is asked for.
extern constinit std::atomic<ListenerArray*> listenersInForce;
/// The one that is registered, while it is the only one; else null.
extern constinit std::atomic<InstrumentListener*> onlyListener;
/// Whether those of `listenersInForce` can be told by threads' lanes, and heavyFence reaches all
/// threads: relaxed, it may lag behind the array.
extern constinit std::atomic<bool> lanesArePossible;

/// The only listener, for as long as the thread's `calling` shows it. Null when there are none or
/// several.
inline InstrumentListener* protectOnlyListener(ThreadState& state) noexcept {
    // Acquire pairs with the release that published the listener.
    InstrumentListener* const only = onlyListener.load(std::memory_order_acquire);
    if (!only)
        return nullptr;
    state.calling.store(only, std::memory_order_release);
    // Pairs with the heavy fence after a removal: one of the two sees the other.
    lightFence();
    if (onlyListener.load(std::memory_order_acquire) == only) [[likely]]
        return only;
    state.calling.store(state.noListener(), std::memory_order_release);
    return nullptr;
}

/// The listeners, which stay until the thread's `snapshot` is reset. Null when there are none.
inline const ListenerArray* protectListeners(ThreadState& state) noexcept {
    const ListenerArray* array = listenersInForce.load(std::memory_order_relaxed);
    for (;;) {
        // Release pairs with the acquire in freeRetiredListeners: what was read of an older array
        // was read before it is freed.
        state.snapshot.store(array, std::memory_order_release);
        // Pairs with the heavy fence in freeRetiredListeners.
        lightFence();
        // Acquire pairs with the release that published the array.
        const ListenerArray* now = listenersInForce.load(std::memory_order_acquire);
        if (now == array) [[likely]]
            return array;
        array = now;
    }
}

/// Listeners::add and what remove does at once. To be called with the listeners' lock held; adding
/// throws std::bad_alloc, taking out never fails.
void registerListener(InstrumentListener& listener);
void unregisterListener(InstrumentListener& listener) noexcept;
Registration* findRegistration(const InstrumentListener& listener) noexcept;

}  // namespace instrument::detail
