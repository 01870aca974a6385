// The base of everything that hears events.
#pragma once

#include <cstdint>

#include "zandor/instrument/event_context.hpp"
#include "zandor/instrument/event_id.hpp"
#include "zandor/instrument/export.hpp"
#include "zandor/instrument/listeners.hpp"

namespace instrument {

/// Register with listeners.add. The operations are called on the threads that produce events,
/// several at once; `instrument` is the handle, whose first member points to the name. The
/// destructor of a derived class must have the object out of `listeners` before it destroys any
/// part of it. The order of the operations is binary interface.
class ZANDOR_INSTRUMENT_API InstrumentListener {
  public:
    InstrumentListener() noexcept;
    InstrumentListener(const InstrumentListener&) = delete;
    InstrumentListener& operator=(const InstrumentListener&) = delete;
    virtual ~InstrumentListener();

    virtual void onInstant(const Opaque* instrument, const EventContext& context, EventId id) = 0;
    virtual void onStart(const Opaque* instrument, const EventContext& context, EventId id) = 0;
    virtual void onStop(const Opaque* instrument, const EventContext& context, EventId id) = 0;
    // Events whose time (monotonic nanoseconds) is given with them.
    virtual void onInstantAt(const Opaque* instrument, const EventContext& context, EventId id,
                             std::int64_t time) = 0;
    virtual void onStartAt(const Opaque* instrument, const EventContext& context, EventId id,
                           std::int64_t time) = 0;
    virtual void onStopAt(const Opaque* instrument, const EventContext& context, EventId id,
                          std::int64_t time) = 0;
};

}  // namespace instrument
