// A recording as trace-event JSON.
#pragma once

#include <cstdint>
#include <string_view>

#include "zandor/instrument/event_stream.hpp"
#include "zandor/instrument/exports.hpp"

namespace instrument::detail {

/// Takes a buffer of 64 KiB, up to 512 KiB for names, 40 bytes an event that is open at once, and
/// where ends may meet a bit an event. An exception of the sink passes through.
ZANDOR_INSTRUMENT_API void writeTraceEventJson(EventStream& stream, TimeSystem timeSystem,
                                               std::int64_t minimumDuration, TextSink& sink);
inline void writeTraceEventJson(const Recording& recording, TimeSystem timeSystem,
                                std::int64_t minimumDuration, TextSink& sink) {
    RecordingStream stream(recording);
    writeTraceEventJson(stream, timeSystem, minimumDuration, sink);
}

/// Takes a trace in items, each of which may begin a file of its own behind the head. What ends a
/// file, traceEventJsonEnd, is left to it.
class TraceItemSink : public TextSink {
  public:
    /// What was written is the head.
    virtual void endHead() = 0;
    /// What was written since is an item: events that belong together.
    virtual void endItem() = 0;
};
inline constexpr std::string_view traceEventJsonEnd = "\n]}\n";

ZANDOR_INSTRUMENT_API void writeTraceEventItems(EventStream& stream, TraceItemSink& sink);

}  // namespace instrument::detail
