// For those who write listeners: what a listener keeps for each thread that produces events.
//
//   void onStart(const Opaque* instrument, const EventContext& context, EventId) override {
//       auto* mine = static_cast<Counts*>(data_.get(context));
//       if (!mine) {
//           const std::uint64_t age = data_.age();
//           mine = find(data_.thread()) or a new one;
//           data_.set(mine, age);
//       }
//       ...
//   }
//
// Found by two loads, without a lock. The data belong to the listener; a thread that ends and a
// child after fork forget them, and a thread that comes later may have the identity of one that
// ended.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "zandor/instrument/event_context.hpp"
#include "zandor/instrument/export.hpp"
#include "zandor/instrument/listener_slot.hpp"

namespace instrument {

class ZANDOR_INSTRUMENT_API ListenerData {
  public:
    ListenerData() noexcept;
    ~ListenerData();
    ListenerData(const ListenerData&) = delete;
    ListenerData& operator=(const ListenerData&) = delete;

    // For callbacks, on the delivering thread.

    /// What the thread keeps that delivers the event; null when it keeps nothing. Always null for a
    /// listener that came when all places were taken: it goes by thread() each time.
    void* get(const EventContext& context) const noexcept { return get(context.slots()); }
    void* get(const detail::ListenerSlot* slots) const noexcept {
        // Relaxed: who has the threads forget waits for those inside before it frees anything.
        const detail::ListenerSlot& slot = slots[place_];
        return slot.number == age_.load(std::memory_order_relaxed) ? slot.data : nullptr;
    }
    /// Changes when all threads are to forget: to be asked before the data are looked for, so that
    /// those of an earlier age are not kept in a later one.
    std::uint64_t age() const noexcept;
    void set(void* data, std::uint64_t age) noexcept;
    /// Stands for the calling thread as long as it lives.
    static const void* thread() noexcept;
    /// Whether the event is of the calling thread itself rather than of another virtual machine's
    /// or an external thread that it delivers for.
    static bool isOfThread(const EventContext& context) noexcept;

    /// Has every thread forget what it keeps, after the data were put out of reach for those who
    /// look for them. A callback that runs meanwhile may still go on with its own: see
    /// Listeners::drain.
    void forgetAll() noexcept;

    /// Whether the calling thread is inside a callback of any listener.
    static bool isInsideListener() noexcept;

  private:
    std::atomic<std::uint64_t> age_;  // a number that no listener had before
    std::size_t place_;
};

}  // namespace instrument
