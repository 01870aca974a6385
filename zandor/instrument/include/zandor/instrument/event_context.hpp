// What listeners are told about one edge (start, stop or instant) of an event besides its instrument and id.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "zandor/instrument/context.hpp"
#include "zandor/instrument/export.hpp"
#include "zandor/instrument/instrument.hpp"

namespace instrument {

class SourceRef;

/// Made once an edge on the stack of the thread that delivers it, shared by all listeners, and gone
/// when the last has returned: keep nothing of it.
class ZANDOR_INSTRUMENT_API EventContext {
  public:
    EventContext(const EventContext&) = delete;
    EventContext& operator=(const EventContext&) = delete;

    /// When it happened, in nanoseconds of the monotonic clock. The clock is read on the first demand.
    std::int64_t time() const;
    /// The same in ticks of the raw clock, to be converted when read (see clock.hpp).
    std::uint64_t ticks() const;

    /// The delivering thread's source; its name and id.
    std::uint64_t sourceId() const noexcept;
    std::string_view sourceName() const;

    bool empty() const noexcept { return set_ ? set_->empty() : args_.empty(); }
    /// The context as it was given, where it was given as arguments; else empty.
    ContextArgs args() const noexcept { return args_; }
    /// The context as a set, made on the first demand.
    const ContextSet& set() const;

  private:
    friend class Delivery;
    friend class InstrumentRecorder;
    explicit EventContext(const ContextSet* set, ContextArgs args, const SourceRef* source) noexcept
        : set_(set), args_(args), source_(source) {}

    mutable const ContextSet* set_;
    ContextArgs args_;
    const SourceRef* source_;
    mutable std::uint64_t ticks_ = 0;
    mutable std::optional<ContextSet> made_;
};

/// The text of a context value: integers and shortest round-trip reals in decimal, "true", "false".
ZANDOR_INSTRUMENT_API std::string toText(const ContextValue& value);

}  // namespace instrument
