// The process's listeners and the delivery of events to them.
//
// Delivery takes no lock and allocates nothing of its own; listeners hear an event in the order
// of their registration. Events that a thread produces while it is inside a listener are not
// delivered, and are counted. A listener that throws does not starve the ones after it; the first
// exception then reaches whoever produced the event.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "zandor/instrument/control_element.hpp"
#include "zandor/instrument/event_id.hpp"
#include "zandor/instrument/export.hpp"

namespace instrument {

struct ContextArg;
class InstrumentListener;

/// There is one, `listeners`. It is initialised before any code runs and never destroyed, so that
/// events may come from static constructors, exit handlers and detached threads. The layout is
/// frozen: programs compiled against it read the flag directly.
class ZANDOR_INSTRUMENT_API Listeners {
  public:
    /// Whether at least one listener is registered. Relaxed: a thread may see it a moment late.
    alignas(64) std::atomic<bool> anyListenerActive{false};
    /// Whether any of them may do something about stops. Relaxed, as above.
    std::atomic<bool> anyListenerHearsStops{false};

    constexpr Listeners() noexcept = default;
    Listeners(const Listeners&) = delete;
    Listeners& operator=(const Listeners&) = delete;

    bool anyActive() const noexcept { return anyListenerActive.load(std::memory_order_relaxed); }
    bool anyHearsStops() const noexcept {
        return anyListenerHearsStops.load(std::memory_order_relaxed);
    }

    /// Registers a listener behind those already there; does nothing for one that is there.
    void add(InstrumentListener& listener);
    /// Takes a listener out; does nothing for one that is not there. Outside any callback it
    /// returns when no other thread is inside that listener, which may then be destroyed. Inside a
    /// callback it does not wait, and promises only that no new call begins.
    void remove(InstrumentListener& listener);
    bool has(const InstrumentListener& listener) const;
    /// Waits until no other thread is inside a listener that was removed. Not for callbacks.
    void drain(const InstrumentListener& listener) const;
    /// Events produced inside listeners so far, in the whole process.
    std::uint64_t suppressedEvents() const noexcept;

    // Delivery of decided events: the caller has looked at the flags. `tag` is the host virtual
    // machine that the event comes from, none for the main one.
    EventId onEventStart(const Opaque* handle, ContextSet&& context,
                         std::optional<std::uint64_t> tag = std::nullopt);
    void onEventStop(const Opaque* handle, ContextSet&& context, EventId id,
                     std::optional<std::uint64_t> tag = std::nullopt);
    void onEventInstant(const Opaque* handle, ContextSet&& context,
                        std::optional<std::uint64_t> tag = std::nullopt);

    // The same for events whose time (nanoseconds of the monotonic clock) and identity are known
    // already; their source id is one that addExternalSource gave.
    void onEventStartAt(const Opaque* handle, ContextSet&& context, EventId id, std::int64_t time);
    void onEventStopAt(const Opaque* handle, ContextSet&& context, EventId id, std::int64_t time);
    void onEventInstantAt(const Opaque* handle, ContextSet&& context, EventId id,
                          std::int64_t time);

    // The same for context that is given as arguments, taken as they are.
    EventId onEventStart(const Opaque* handle, std::span<const ContextArg> context);
    void onEventStop(const Opaque* handle, std::span<const ContextArg> context, EventId id);
    EventId onEventInstant(const Opaque* handle, std::span<const ContextArg> context);

    /// The library's own, here in the line that every event looks at: another number whenever
    /// anything may have changed that threads found out about the listeners.
    std::atomic<std::uint64_t> version{1};

  private:
    [[maybe_unused]] std::uint8_t reserved_[48]{};
};
static_assert(sizeof(Listeners) == 64);

extern ZANDOR_INSTRUMENT_API constinit Listeners listeners;

}  // namespace instrument
