// The recorder: keeps every event that it hears, for reading back at any time.
//
//   instrument::InstrumentRecorder recorder;
//   instrument::listeners.add(recorder);
//   ...
//   for (const auto& event : recorder.getAllEvents()) use(event.name, event.duration());
//
// Events go into chunks of the thread that produces them, without locks. A query takes a snapshot:
// of each thread a prefix of what it wrote, and no stop whose start is missing. Queries may run
// while events come in, from any thread. In a child after fork it is registered still, and empty.
//
// The recorder is bounded in memory; what it had to drop is counted, and said once on the console
// when it is next read or cleared. While a query looks at the recording nothing gives way: then a
// full recorder refuses new events, whatever it keeps.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string_view>
#include <vector>

#include "zandor/instrument/context.hpp"
#include "zandor/instrument/event_id.hpp"
#include "zandor/instrument/export.hpp"
#include "zandor/instrument/listener.hpp"

namespace instrument {

/// What gives way when the bound on memory is reached.
enum class Keep : std::uint8_t {
    first,    ///< new events are refused; stops of open ones are still taken
    last,     ///< the oldest chunks are dropped, as a flight recorder does
    longest,  ///< the shortest events are dropped, by a rising minimum duration
};

struct RecorderLimits {
    /// Bytes of event memory; 0: a quarter of the machine's memory or of its group's limit.
    std::size_t maxBytes = 0;
    Keep keep = Keep::first;
    /// Where event memory lies in files, one a process and recording, whose content outlives the
    /// process (see trace_file.hpp); empty: in the process's own memory. Children after fork write
    /// files of their own there. A recording that is cleared removes its file.
    std::filesystem::path folder = {};
};

/// Events that were dropped, by cause.
struct RecorderDrops {
    std::uint64_t refused = 0;         ///< the bound was reached and the recorder keeps the first
    std::uint64_t oldest = 0;          ///< went with their chunk, keeping the last
    std::uint64_t shortest = 0;        ///< were shorter than minimumDuration, keeping the longest
    std::uint64_t failed = 0;          ///< the system gave no memory, or the folder's disk is full
    std::int64_t minimumDuration = 0;  ///< nanoseconds; what `shortest` was measured by at last
    std::uint64_t total() const noexcept { return refused + oldest + shortest + failed; }
};

namespace detail {
class RecorderCore;
}

class ZANDOR_INSTRUMENT_API InstrumentRecorder : public InstrumentListener {
  public:
    struct EventStats {
        std::string_view name;
        ContextSet context;
        std::int64_t count = 0;
        std::int64_t duration = 0;  ///< nanoseconds in all
    };

    /// A start and its first stop.
    struct Event {
        std::string_view name;  ///< the start's, as are context and source
        ContextSet context;
        EventId id;
        std::int64_t startTimePoint = 0;  ///< nanoseconds of the monotonic clock
        std::int64_t stopTimePoint = 0;
        std::string_view source;
        std::string_view sourceName() const noexcept { return source; }
        std::int64_t duration() const noexcept { return stopTimePoint - startTimePoint; }
    };

    /// A single start, stop or instant.
    struct EventPoint {
        std::string_view name;
        ContextSet context;
        EventId id;
        EventPointType type = EventPointType::instant;
        std::int64_t timePoint = 0;
        std::string_view source;  ///< of the thread that produced this point
        std::uint64_t serialId() const noexcept { return id.serialId; }
        std::string_view sourceName() const noexcept { return source; }
    };

    InstrumentRecorder();
    explicit InstrumentRecorder(const RecorderLimits& limits);
    /// Takes itself out of `listeners` first.
    ~InstrumentRecorder() override;

    void clearAllEventData();

    // Complete events, ordered by start, source, serial.
    std::vector<Event> getAllEvents() const;
    std::vector<Event> getEvents(std::string_view name) const;
    /// Those that hold every given entry.
    std::vector<Event> getEventsForContext(std::string_view name,
                                           const std::vector<ContextEntry>& entries) const;

    // Single points, ordered by time, source, and order in the source.
    std::vector<EventPoint> getAllEventPoints() const;
    std::vector<EventPoint> getEventPoints(std::string_view name) const;
    std::vector<EventPoint> getEventPointsForContext(
        std::string_view name, const std::vector<ContextEntry>& entries) const;

    // Count and total of complete events, ordered by name, then context. By context: one record a
    // name and whole context; by context entry: one a name and single entry (an event of three
    // entries is in three groups, one of none in none). A name that no event has gives the
    // single-record queries zeros.
    std::vector<EventStats> getAllEventStats() const;
    std::vector<EventStats> getAllEventStatsByContext() const;
    std::vector<EventStats> getAllEventStatsByContextEntry() const;
    EventStats getEventStats(std::string_view name) const;
    std::vector<EventStats> getEventStatsByContext(std::string_view name) const;
    std::vector<EventStats> getEventStatsByContextEntry(std::string_view name) const;
    EventStats getEventStatsForContext(std::string_view name,
                                       const std::vector<ContextEntry>& entries) const;

    RecorderDrops drops() const noexcept;
    /// Bytes of event memory in use now, and the bound.
    std::size_t bytesInUse() const noexcept;
    std::size_t maxBytes() const noexcept;

    void onInstant(const Opaque*, const EventContext&, EventId) noexcept override;
    void onStart(const Opaque*, const EventContext&, EventId) noexcept override;
    void onStop(const Opaque*, const EventContext&, EventId) noexcept override;
    void onInstantAt(const Opaque*, const EventContext&, EventId, std::int64_t) noexcept override;
    void onStartAt(const Opaque*, const EventContext&, EventId, std::int64_t) noexcept override;
    void onStopAt(const Opaque*, const EventContext&, EventId, std::int64_t) noexcept override;

    /// The library's own view of what is inside.
    detail::RecorderCore& core() const noexcept { return *core_; }

  private:
    struct CoreDeleter {
        void operator()(detail::RecorderCore* core) const noexcept;
    };
    std::unique_ptr<detail::RecorderCore, CoreDeleter> core_;
};

}  // namespace instrument
