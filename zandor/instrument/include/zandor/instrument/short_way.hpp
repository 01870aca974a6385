// For those who write listeners: a short way for the frequent edges of events.
//
// While every listener that is registered has one, an edge that a thread tells of its own event
// goes to them without an EventContext and without virtual calls:
//
//   const ShortOperations shortOperations{.needsTime = true, .start = ..., .stop = ...};
//
//   class Totals : public InstrumentListener {
//       ...
//       const ShortWay shortWay_{*this, shortOperations};
//   };
#pragma once

#include <cstdint>

#include "zandor/instrument/event_id.hpp"
#include "zandor/instrument/export.hpp"
#include "zandor/instrument/instrument.hpp"
#include "zandor/instrument/listener_slot.hpp"

namespace instrument {

class InstrumentListener;

namespace detail {
struct SourceInfo;
}

/// An edge of the delivering thread's own event. Gone when the operation returns.
struct Edge {
    const Opaque* instrument;
    EventId id;
    /// Its texts stay for the life of the process.
    ContextArgs context;
    std::uint64_t ticks;  ///< of the raw clock; 0 where no listener needs it
    std::int64_t time;    ///< nanoseconds of the monotonic clock; 0 where no listener needs it
    /// What the thread keeps for listeners: see ListenerData.
    detail::ListenerSlot* slots;
    detail::SourceInfo* source;
};

/// What a listener does with such edges instead of its own operations. Each takes no lock that is
/// held for long, calls no code of others, and tells whether it did all that there is to do: where
/// not, it has done nothing, and the listener's own operation is called.
struct ShortOperations {
    using Operation = bool (*)(InstrumentListener& listener, const Edge& edge) noexcept;

    bool needsTicks = false;
    bool needsTime = false;
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
