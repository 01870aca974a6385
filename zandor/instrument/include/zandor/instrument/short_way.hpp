// For those who write listeners: a short way for the frequent edges of events.
//
// While every listener that is registered has one (a recorder has its own), an edge that a thread
// tells of its own event goes to them without an EventContext and without virtual calls:
//
//   const ShortOperations shortOperations{.needsTime = true, .start = ..., .stop = ...};
//
//   class Totals : public InstrumentListener {
//       ...
//       const ShortWay shortWay_{*this, shortOperations};
//   };
#pragma once

#include <cstdint>

#include "zandor/instrument/export.hpp"
#include "zandor/instrument/instrument.hpp"
#include "zandor/instrument/listener_slot.hpp"

namespace instrument {

class InstrumentListener;

/// What a listener does with such edges instead of its own operations.
struct ShortOperations {
    /// Takes no lock that is held for long, calls no code of others, and tells whether it did all
    /// that there is to do: where not, it has done nothing, and the listener's own operation is
    /// called. The serial is that of the event in the calling thread's own source; the time is the
    /// monotonic clock's; `slots` is what the thread keeps for listeners: see ListenerData.
    using Operation = bool (*)(InstrumentListener& listener, const Opaque* instrument,
                               std::uint64_t serial, std::int64_t time,
                               const detail::ListenerSlot* slots) noexcept;

    /// Else the time is 0, and no clock is read for it.
    bool needsTime = false;
    /// Else it is told of edges without context only.
    bool ignoresContext = false;
    // Null where there is nothing to do.
    Operation instant = nullptr;
    Operation start = nullptr;
    Operation stop = nullptr;
};

/// Gives a listener a short way for as long as it lives. To be made by the listener's constructor:
/// classes that derive from it may have operations of their own, and have no short way.
class ZANDOR_INSTRUMENT_API ShortWay {
  public:
    ShortWay(InstrumentListener& listener, const ShortOperations& operations) noexcept;
    ~ShortWay();
    ShortWay(const ShortWay&) = delete;
    ShortWay& operator=(const ShortWay&) = delete;

    /// That of a listener, or null. Under the listeners' lock.
    static const ShortOperations* of(const InstrumentListener& listener) noexcept;

  private:
    const InstrumentListener& listener_;
    const void* class_;
    const ShortOperations& operations_;
    ShortWay* next_;
};

}  // namespace instrument
