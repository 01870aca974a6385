// What a recording becomes for other tools: trace-event JSON, collapsed stacks, a summary by name.
//
// Writers stream to a sink; the functions that return text collect it, those that write files write
// beside the target and rename, so that a file is whole or not there.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "zandor/instrument/export.hpp"
#include "zandor/instrument/recorder.hpp"

namespace instrument {

enum class TimeSystem : std::int32_t {
    utc = 0,        ///< microseconds since the epoch
    monotonic = 1,  ///< microseconds since the recording's origin
};

/// Takes text piece by piece. An exception ends the export and reaches its caller.
class ZANDOR_INSTRUMENT_API TextSink {
  public:
    virtual ~TextSink();
    virtual void write(std::string_view text) = 0;
};

/// All complete events as trace-event JSON. Events shorter than `minimumDuration` are left out;
/// a negative one keeps all, instants too. Records are read where they stand: a full recorder
/// takes nothing new until the sink has all.
ZANDOR_INSTRUMENT_API void writeTraceEventJson(const InstrumentRecorder& recorder,
                                               TimeSystem timeSystem,
                                               std::chrono::nanoseconds minimumDuration,
                                               TextSink& sink);
ZANDOR_INSTRUMENT_API std::string getAllCompleteEventsTraceEventJson(
    const InstrumentRecorder& recorder, TimeSystem timeSystem,
    std::chrono::nanoseconds minimumDuration);

/// One line a distinct stack: the thread's name and the nested events' names, joined by ';', a
/// space, and the self time in nanoseconds (at least 1). Sorted. Without line ends.
ZANDOR_INSTRUMENT_API std::vector<std::string> getAllEventsCollapsedStacks(
    const InstrumentRecorder& recorder);

/// Both as files. Throw std::system_error when the file cannot be written.
ZANDOR_INSTRUMENT_API void saveTraceEventJson(const InstrumentRecorder& recorder,
                                              TimeSystem timeSystem,
                                              std::chrono::nanoseconds minimumDuration,
                                              const std::filesystem::path& file);
ZANDOR_INSTRUMENT_API void saveCollapsedStacks(const InstrumentRecorder& recorder,
                                               const std::filesystem::path& file);

/// Where the time went, by name.
struct EventSummary {
    std::string_view name;
    std::int64_t count = 0;
    std::int64_t total = 0;  ///< nanoseconds; an event inside one of its own name counts once
    std::int64_t self = 0;   ///< nanoseconds not covered by events nested in it
    std::int64_t minimum = 0;
    std::int64_t maximum = 0;
    std::int64_t p50 = 0;  ///< half of them keep to it, within an eighth
    std::int64_t p99 = 0;
};
/// Of complete events, widest self time first.
ZANDOR_INSTRUMENT_API std::vector<EventSummary> summarize(const InstrumentRecorder& recorder);
/// Of each thread that has complete events, sorted; two threads may have the same name.
ZANDOR_INSTRUMENT_API std::vector<std::string> threadNames(const InstrumentRecorder& recorder);
/// Of the threads of this process that have anything in the recording, by the system's ids.
ZANDOR_INSTRUMENT_API std::map<std::uint64_t, std::string> threadNamesById(
    const InstrumentRecorder& recorder);

}  // namespace instrument
