#include "zandor/instrument/trace_event_json.hpp"

#include "zandor/instrument/clock.hpp"
#include "zandor/instrument/json_args.hpp"
#include "zandor/instrument/json_text.hpp"
#include "zandor/instrument/text_buffer.hpp"
#include "zandor/instrument/trace_layout.hpp"
#include "zandor/instrument/trace_time.hpp"
#include "zandor/instrument/trace_tracks.hpp"

namespace instrument::detail {

namespace {

class Writer {
  public:
    Writer(const Recording& recording, TimeSystem timeSystem, std::int64_t minimumDuration,
           TextSink& sink)
        : recording_(recording),
          timeSystem_(timeSystem),
          withInstants_(minimumDuration < 0),
          time_(recording, timeSystem),
          tracks_(recording),
          layout_(recording, time_, minimumDuration),
          out_(sink) {}

    void write() {
        out_.append("{\"displayTimeUnit\":\"ns\",\"metadata\":{");
        appendMetadata();
        out_.append("},\"traceEvents\":[");
        tracks_.append(out_);
        layout_.forEach([this](const PlacedEvent& placed) {
            appendInstantsUntil(placed.event->start);
            appendPlaced(placed);
        });
        appendInstantsUntil(INT64_MAX);
        out_.append("\n]}\n");
        out_.flush();
    }

  private:
    void appendMetadata() {
        appendMetadata("origin_monotonic_ns", time_.originMonotonic());
        appendMetadata("origin_utc_ns", time_.originUtc());
        appendMetadata("dropped_refused", recording_.drops.refused);
        appendMetadata("dropped_oldest", recording_.drops.oldest);
        appendMetadata("dropped_shortest", recording_.drops.shortest);
        appendMetadata("dropped_shortest_below_ns", recording_.drops.minimumDuration);
        appendMetadata("dropped_failed", recording_.drops.failed);
        appendMetadata("left_out_negative_duration", layout_.leftOutNegative());
        appendMetadata("left_out_shorter_than_asked", layout_.leftOutShort());
        out_.append("\"clock\":\"");
        out_.append(clock::name());
        out_.append(timeSystem_ == TimeSystem::utc ? "\",\"time_system\":\"utc\","
                                                   : "\",\"time_system\":\"monotonic\",");
        out_.append("\"format_version\":\"1\",\"zandor_version\":\"" ZANDOR_VERSION "\"");
    }

    template <typename Number>
    void appendMetadata(std::string_view name, Number number) {
        out_.append('"');
        out_.append(name);
        out_.append("\":\"");
        out_.appendNumber(number);
        out_.append("\",");
    }

    void appendPlaced(const PlacedEvent& placed) {
        switch (placed.shape) {
            case TraceShape::complete:
                return appendComplete(placed);
            case TraceShape::asyncPair:
                return appendPair(placed);
            case TraceShape::instant:
                return appendAsInstant(placed);
        }
    }

    void appendComplete(const PlacedEvent& placed) {
        const RecordedEvent& event = *placed.event;
        appendHead("X", event.instrument, "event", event.source, placed.start);
        out_.append(",\"dur\":");
        out_.appendMicroseconds(
            saturatingSubtract(time_.nanoseconds(placed.end), time_.nanoseconds(placed.start)));
        JsonArgs args(out_);
        closeWith(args, event);
    }

    /// An event that is no part of its thread's nesting; where it changes threads, with an arrow.
    void appendPair(const PlacedEvent& placed) {
        const RecordedEvent& event = *placed.event;
        const std::uint32_t stopSource = event.finished ? event.stopSource : event.source;
        ++pairs_;
        appendHead("b", event.instrument, "async", event.source, placed.start);
        appendPairId();
        JsonArgs args(out_);
        closeWith(args, event);
        if (stopSource != event.source) {
            appendHead("s", event.instrument, "flow", event.source, placed.start);
            appendPairId();
            out_.append('}');
        }
        appendHead("e", event.instrument, "async", stopSource, placed.end);
        appendPairId();
        out_.append('}');
        if (stopSource != event.source) {
            appendHead("f", event.instrument, "flow", stopSource, placed.end);
            appendPairId();
            out_.append(",\"bp\":\"e\"}");
        }
    }

    void appendPairId() {
        out_.append(",\"id\":\"0x");
        out_.appendHexadecimal(pairs_);
        out_.append('"');
    }

    /// An event without a time that the trace could show, with its exact times instead.
    void appendAsInstant(const PlacedEvent& placed) {
        const RecordedEvent& event = *placed.event;
        appendHead("i", event.instrument, "event", event.source, placed.start);
        out_.append(",\"s\":\"t\"");
        JsonArgs args(out_);
        args.add("duration_ns", saturatingSubtract(closingTime(recording_, event), event.start));
        if (timeSystem_ == TimeSystem::utc)
            args.add("start_ns", time_.utc(event.start));
        closeWith(args, event);
    }

    /// Ends an event's line with what its args hold of the event itself.
    void closeWith(JsonArgs& args, const RecordedEvent& event) {
        if (!event.finished)
            args.add("unfinished", true);
        closeWith(args, event.context);
    }

    void closeWith(JsonArgs& args, ContextRange context) {
        args.addContext(recording_.contextOf(context));
        args.close();
        out_.append('}');
    }

    void appendInstantsUntil(std::int64_t time) {
        if (!withInstants_)
            return;
        const auto& points = recording_.strayPoints;
        for (; nextPoint_ < points.size() && points[nextPoint_].time <= time; ++nextPoint_)
            appendInstant(points[nextPoint_]);
    }

    void appendInstant(const RecordedPoint& point) {
        const char* category = point.type == EventPointType::stop ? "stop" : "instant";
        appendHead("i", point.instrument, category, point.source, time_.at(point.time));
        out_.append(",\"s\":\"t\"");
        JsonArgs args(out_);
        closeWith(args, point.context);
    }

    /// Opens an event and tells what every one has.
    void appendHead(std::string_view phase, const Opaque* instrument, std::string_view category,
                    std::uint32_t source, std::int64_t time) {
        out_.append(",\n{\"ph\":\"");
        out_.append(phase);
        out_.append("\",\"name\":\"");
        appendJsonName(out_, {instrument->name, instrument->nameLength});
        out_.append("\",\"cat\":\"");
        out_.append(category);
        out_.append("\",");
        tracks_.appendIds(out_, source);
        out_.append(",\"ts\":");
        out_.appendMicroseconds(time_.nanoseconds(time));
    }

    const Recording& recording_;
    const TimeSystem timeSystem_;
    const bool withInstants_;
    const TraceTime time_;
    const TraceTracks tracks_;
    TraceLayout layout_;
    TextBuffer out_;
    std::size_t nextPoint_ = 0;
    std::uint64_t pairs_ = 0;
};

}  // namespace

void writeTraceEventJson(const Recording& recording, TimeSystem timeSystem,
                         std::int64_t minimumDuration, TextSink& sink) {
    Writer(recording, timeSystem, minimumDuration, sink).write();
}

}  // namespace instrument::detail
