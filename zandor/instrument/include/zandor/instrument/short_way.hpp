// For those who write listeners: a short way for the frequent edges of events.
//
// While every listener that is registered has one (a recorder has its own), an edge that a thread
// tells of its own event goes to them without an EventContext and without virtual calls:
//
//   const ShortOperations shortOperations{.dataOf = ..., .start = ..., .stop = ...};
//
//   class Totals : public InstrumentListener {
//       ...
//       const ShortWay shortWay_{*this, shortOperations, this};
//   };
#pragma once

#include <atomic>
#include <cstdint>
#include <span>

#include "zandor/instrument/export.hpp"
#include "zandor/instrument/instrument.hpp"
#include "zandor/instrument/listener_slot.hpp"

namespace instrument {

class InstrumentListener;

/// One thread's count of an instrument's starts and instants without context. All-zero is none.
struct alignas(32) ShortCount {
    /// Null: nothing is counted here. Written last, release; pairs with the acquire of readers.
    /// Relaxed for the thread, which alone writes it.
    std::atomic<const Opaque*> instrument;
    /// Written by the thread alone. Relaxed: whoever has to see a count learned of its event
    /// otherwise.
    std::atomic<std::uint64_t> count;
    /// What was counted before the last reset; the listener's.
    std::atomic<std::uint64_t> base;

    void countOne() noexcept {
        count.store(count.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
};

/// What a listener does with such edges instead of its own operations.
struct ShortOperations {
    /// `data` is what dataOf gave; `serial` is the event's, in the calling thread's own source;
    /// `time` is of the monotonic clock, and `context` as keepContext writes it. Takes no lock that
    /// is held for long, calls no code of others, and tells whether it did all that there is to do:
    /// where not, it has done nothing, and the listener's own operation is called.
    using Operation = bool (*)(void* data, const Opaque* instrument, std::uint64_t serial,
                               std::int64_t time, std::span<const std::uint64_t> context) noexcept;

    /// Else the time is 0, and no clock is read for it.
    bool needsTime = false;
    /// Whether it also takes edges whose context is there but not in `context`.
    bool ignoresContext = false;
    /// What it keeps for the calling thread, which has these slots (see ListenerData); it is given
    /// to the operations until the listener forgets its data. Null where it does not know the
    /// thread yet. `self` is what was given with the operations.
    void* (*dataOf)(void* self, const detail::ListenerSlot* slots) noexcept;
    // Null where there is nothing to do.
    Operation instant = nullptr;
    Operation start = nullptr;
    Operation stop = nullptr;
    /// Null, or gives a row of as many counts as `counts` says, by the instruments' numbers; null
    /// for none. Where an instrument is in its place there, its starts and instants without context
    /// are counted without a call; the listener's own operations put it there. `data` is what
    /// dataOf gave; the row stays as long.
    ShortCount* (*countsOf)(void* data) noexcept = nullptr;
    static constexpr std::uint32_t counts = 2048;
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
