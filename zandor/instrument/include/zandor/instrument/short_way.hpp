// For those who write listeners: a short way for the frequent edges of events.
//
// While every listener that is registered has one (a recorder has its own), an edge that a thread
// tells of its own event goes to them without an EventContext and without virtual calls:
//
//   const ShortOperations shortOperations{.needsTime = true, .start = ..., .stop = ...};
//
//   class Totals : public InstrumentListener {
//       ...
//       const ShortWay shortWay_{*this, shortOperations, this};
//   };
#pragma once

#include <cstdint>
#include <span>

#include "zandor/instrument/export.hpp"
#include "zandor/instrument/instrument.hpp"
#include "zandor/instrument/listener_slot.hpp"

namespace instrument {

class InstrumentListener;

/// A start, a stop or an instant.
struct ShortEdge {
    const Opaque* instrument;
    std::uint64_t serial;               ///< of the event, in the calling thread's own source
    std::int64_t time;                  ///< of the monotonic clock
    const detail::ListenerSlot* slots;  ///< what the thread keeps for listeners: see ListenerData
    std::span<const std::uint64_t> context;  ///< as keepContext writes it
};

/// What a listener does with starts and stops of events without context, once it knows the thread;
/// instants without context are nothing to it then.
struct PlainOperations {
    /// What it keeps for the calling thread, to be given to the others until it forgets its data;
    /// null where it does not know the thread yet. `self` is as in ShortOperations.
    void* (*dataOf)(void* self, const detail::ListenerSlot* slots) noexcept;
    // As those of ShortOperations.
    bool (*start)(void* data, const Opaque* instrument, std::uint64_t serial,
                  std::int64_t time) noexcept;
    bool (*stop)(void* data, std::uint64_t serial, std::int64_t time) noexcept;
};

/// What a listener does with such edges instead of its own operations.
struct ShortOperations {
    /// Takes no lock that is held for long, calls no code of others, and tells whether it did all
    /// that there is to do: where not, it has done nothing, and the listener's own operation is
    /// called. `self` is what was given with the operations.
    using Operation = bool (*)(void* self, const ShortEdge& edge) noexcept;

    /// Else the time is 0, and no clock is read for it.
    bool needsTime = false;
    /// Whether it also takes edges whose context is there but not in `context`.
    bool ignoresContext = false;
    // Null where there is nothing to do.
    Operation instant = nullptr;
    Operation start = nullptr;
    Operation stop = nullptr;
    const PlainOperations* plain = nullptr;  ///< null: it has none
};

/// Gives a listener a short way for as long as it lives. To be made by the listener's constructor:
/// classes that derive from it may have operations of their own, and have no short way.
class ZANDOR_INSTRUMENT_API ShortWay {
  public:
    ShortWay(InstrumentListener& listener, const ShortOperations& operations, void* self) noexcept;
    ~ShortWay();
    ShortWay(const ShortWay&) = delete;
    ShortWay& operator=(const ShortWay&) = delete;

    /// That of a listener, or null. Under the listeners' lock.
    static const ShortWay* of(const InstrumentListener& listener) noexcept;
    const ShortOperations& operations() const noexcept { return operations_; }
    void* self() const noexcept { return self_; }

  private:
    const InstrumentListener& listener_;
    const void* class_;
    const ShortOperations& operations_;
    void* self_;
    ShortWay* next_;
};

}  // namespace instrument
