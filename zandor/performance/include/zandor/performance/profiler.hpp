// The profiler: how long the calls of each event took, exact however long the run.
//
//   instrument::InstrumentProfiler profiler;
//   instrument::listeners.add(profiler);
//   ...
//   profiler.print();
//
// Each thread keeps a tree of calling contexts, which is brought up to date as a call ends, without
// locks: memory grows with the distinct call paths of a thread only. Paths deeper than
// 1024 calls are summed up at that depth. A call that is stopped by another thread counts there as
// one without caller; one that is still open, and a stop whose start is unknown, do not count.
// Calls that overlap without nesting count in full each. For names that do not nest in themselves
// calls and totals are those of a recorder that heard the same events.
//
// Queries may run while events come in, from any thread. In a child after fork the profiler is
// registered still, and empty.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "zandor/instrument/listener.hpp"
#include "zandor/performance/export.hpp"

namespace instrument {

namespace detail {
class ProfilerCore;
}

/// The calls of one name. Times are nanoseconds.
struct CallSummary {
    std::string name;
    std::uint64_t calls = 0;
    std::int64_t start = 0;  ///< of the first call, since the first event of the profile
    std::int64_t total = 0;  ///< of calls that are not inside one of the same name
    std::int64_t self = 0;   ///< total without the calls inside
    std::int64_t min = 0;
    std::int64_t max = 0;
    // Within an eighth: the durations that half of the calls, and all but one in a hundred, keep
    // to.
    std::int64_t p50 = 0;
    std::int64_t p99 = 0;
};

class ZANDOR_PERFORMANCE_API InstrumentProfiler : public InstrumentListener {
  public:
    /// Name, calls, first start, total and self time, as in CallSummary but in seconds.
    using Row = std::tuple<std::string, std::uint64_t, double, double, double>;

    InstrumentProfiler();
    /// Takes itself out of `listeners` first.
    ~InstrumentProfiler() override;

    /// In order of first start.
    std::vector<CallSummary> getSummary() const;
    std::vector<Row> getData() const;
    /// Writes a table to the console, 80 columns wide, the widest time first.
    void print() const;
    /// Calls that are open go on uncounted.
    void clear();

    /// Events that were lost because the system gave no memory.
    std::uint64_t lostEvents() const noexcept;

    void onInstant(const Opaque*, const EventContext&, EventId) noexcept override;
    void onStart(const Opaque*, const EventContext&, EventId) noexcept override;
    void onStop(const Opaque*, const EventContext&, EventId) noexcept override;
    void onInstantAt(const Opaque*, const EventContext&, EventId, std::int64_t) noexcept override;
    void onStartAt(const Opaque*, const EventContext&, EventId, std::int64_t) noexcept override;
    void onStopAt(const Opaque*, const EventContext&, EventId, std::int64_t) noexcept override;

  private:
    friend class detail::ProfilerCore;
    std::unique_ptr<detail::ProfilerCore> core_;
};

}  // namespace instrument
