// What listeners are told about one edge (start, stop or instant) of an event besides its
// instrument and id.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "zandor/instrument/context.hpp"
#include "zandor/instrument/export.hpp"
#include "zandor/instrument/instrument.hpp"

namespace instrument {

namespace detail {
struct EventContextAccess;
struct ListenerSlot;
struct SourceInfo;
struct ThreadSource;
struct ThreadState;
}  // namespace detail

/// Made once an edge on the stack of the thread that delivers it, shared by all listeners, and gone
/// when the last has returned: keep nothing of it.
class ZANDOR_INSTRUMENT_API EventContext {
  public:
    EventContext(const EventContext&) = delete;
    EventContext& operator=(const EventContext&) = delete;

    /// When it happened, in nanoseconds of the monotonic clock: the time given with the event, or
    /// else that of ticks().
    std::int64_t time() const;
    /// The delivery's instant in ticks of the raw clock, to be converted when read (see clock.hpp).
    /// The clock is read on the first demand.
    std::uint64_t ticks() const;

    /// Who produced it: the delivering thread, or for an event whose time was given the source of
    /// its id. The name stays for the life of the process.
    std::uint64_t sourceId() const noexcept { return sourceId_; }
    std::string_view sourceName() const;
    /// The library's own view of the source.
    detail::SourceInfo* source() const noexcept { return source_; }
    /// What the delivering thread keeps for listeners: see ListenerData.
    detail::ListenerSlot* slots() const noexcept { return slots_; }

    bool empty() const noexcept { return set_ ? set_->empty() : args_.empty(); }
    /// The context as it was given, where it was given as arguments; else empty.
    ContextArgs args() const noexcept { return args_; }
    /// Whether the texts of args() stay for the life of the process, because the library copied
    /// them.
    bool argsAreKept() const noexcept { return argsAreKept_; }
    /// The context as a set, made on the first demand.
    const ContextSet& set() const;

  private:
    friend struct detail::EventContextAccess;
    EventContext(detail::ListenerSlot* slots, detail::SourceInfo* source, std::uint64_t sourceId,
                 const ContextSet* set, ContextArgs args, bool argsAreKept) noexcept
        : set_(set),
          args_(args),
          source_(source),
          sourceId_(sourceId),
          slots_(slots),
          argsAreKept_(argsAreKept) {}

    mutable const ContextSet* set_;
    ContextArgs args_;
    detail::SourceInfo* source_;
    std::uint64_t sourceId_;
    detail::ListenerSlot* slots_;
    mutable std::uint64_t ticks_ = 0;
    std::int64_t time_ = 0;
    bool argsAreKept_ = false;
    bool timeIsGiven_ = false;
    mutable std::optional<ContextSet> made_;
};

/// The text of a context value: integers and shortest round-trip reals in decimal, "true", "false".
ZANDOR_INSTRUMENT_API std::string toText(const ContextValue& value);

}  // namespace instrument
