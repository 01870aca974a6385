// The counter: how often each event happened.
//
//   instrument::InstrumentCounter counter;
//   instrument::listeners.add(counter);
//   ...
//   counter.getEventCount("solve").count;
//
// A start and an instant are one count each, a stop is none. No clock is read. Each thread counts
// for itself, without locks; counts are summed up when they are read, and those of threads that
// ended stay. Queries and resets may run while events come in, from any thread: an event is counted
// either before or after a reset. In a child after fork the counter is registered still, and empty.
// Memory grows with the distinct pairs of instrument and context in a thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "zandor/instrument/context.hpp"
#include "zandor/instrument/listener.hpp"
#include "zandor/performance/export.hpp"

namespace instrument {

namespace detail {
class CounterCore;
}

class ZANDOR_PERFORMANCE_API InstrumentCounter : public InstrumentListener {
  public:
    struct EventCount {
        std::string_view name;
        ContextSet context;
        std::int64_t count = 0;
    };

    InstrumentCounter();
    /// Takes itself out of `listeners` first.
    ~InstrumentCounter() override;

    void resetAllEventCounts();
    void resetEventCount(std::string_view name);

    // Ordered by name, then context; only what was counted since the last reset. By context: one
    // record a name and whole context; by context entry: one a name and single entry (an event of
    // three entries is in three groups, one of none in none). A name that was not counted gives the
    // single-record queries zero.
    std::vector<EventCount> getAllEventCounts() const;
    std::vector<EventCount> getAllEventCountsByContext() const;
    std::vector<EventCount> getAllEventCountsByContextEntry() const;
    EventCount getEventCount(std::string_view name) const;
    std::vector<EventCount> getEventCountsByContext(std::string_view name) const;
    std::vector<EventCount> getEventCountsByContextEntry(std::string_view name) const;
    /// Those whose context holds every given entry.
    EventCount getEventCountForContext(std::string_view name,
                                       const std::vector<ContextEntry>& entries) const;

    /// Events that were not counted because the system gave no memory.
    std::uint64_t lostEvents() const noexcept;

    void onInstant(const Opaque*, const EventContext&, EventId) noexcept override;
    void onStart(const Opaque*, const EventContext&, EventId) noexcept override;
    void onStop(const Opaque*, const EventContext&, EventId) noexcept override;
    void onInstantAt(const Opaque*, const EventContext&, EventId, std::int64_t) noexcept override;
    void onStartAt(const Opaque*, const EventContext&, EventId, std::int64_t) noexcept override;
    void onStopAt(const Opaque*, const EventContext&, EventId, std::int64_t) noexcept override;

  private:
    friend class detail::CounterCore;
    std::unique_ptr<detail::CounterCore> core_;
};

}  // namespace instrument
