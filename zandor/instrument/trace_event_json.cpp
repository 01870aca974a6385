#include "zandor/instrument/trace_event_json.hpp"

#include <string>

#include "zandor/instrument/clock.hpp"
#include "zandor/instrument/counter_point.hpp"
#include "zandor/instrument/json_args.hpp"
#include "zandor/instrument/json_heads.hpp"
#include "zandor/instrument/json_text.hpp"
#include "zandor/instrument/text_buffer.hpp"
#include "zandor/instrument/trace_layout.hpp"
#include "zandor/instrument/trace_time.hpp"
#include "zandor/instrument/trace_tracks.hpp"

namespace instrument::detail {

namespace {

class Writer {
  public:
    Writer(EventStream& stream, TimeSystem timeSystem, std::int64_t minimumDuration, TextSink& sink,
           TraceItemSink* items = nullptr)
        : stream_(stream),
          timeSystem_(timeSystem),
          withInstants_(minimumDuration < 0),
          withArgs_(stream.hasArgs()),
          time_(stream, timeSystem),
          tracks_(stream.facts()),
          layout_(stream, time_, minimumDuration),
          out_(sink),
          items_(items) {}

    void write() {
        out_.append("{\"displayTimeUnit\":\"ns\",\"metadata\":{");
        appendMetadata();
        out_.append("},\"traceEvents\":[");
        tracks_.append(out_);
        if (items_) {
            out_.flush();
            items_->endHead();
        }
        layout_.forEach([this](const PlacedEvent& placed) {
            appendInstantsUntil(placed.event->start);
            appendPlaced(placed);
            endItem();
        });
        appendInstantsUntil(INT64_MAX);
        if (!items_)
            out_.append(traceEventJsonEnd);
        out_.flush();
    }

  private:
    void endItem() {
        if (!items_) [[likely]]
            return;
        out_.flush();
        items_->endItem();
    }

    void appendMetadata() {
        const RecorderDrops& drops = stream_.facts().drops;
        appendMetadata("origin_monotonic_ns", time_.originMonotonic());
        appendMetadata("origin_utc_ns", time_.originUtc());
        appendMetadata("dropped_refused", drops.refused);
        appendMetadata("dropped_oldest", drops.oldest);
        appendMetadata("dropped_shortest", drops.shortest);
        appendMetadata("dropped_shortest_below_ns", drops.minimumDuration);
        appendMetadata("dropped_failed", drops.failed);
        appendMetadata("left_out_negative_duration", layout_.leftOutNegative());
        appendMetadata("left_out_shorter_than_asked",
                       layout_.leftOutShort() + stream_.leftOutShort());
        for (const ExternalAccount& account : stream_.facts().externalAccounts)
            appendAccount(account);
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

    void appendAccount(const ExternalAccount& account) {
        const std::string prefix = "client_" + std::to_string(account.client) + "_";
        out_.append('"');
        out_.append(prefix);
        out_.append("name\":\"");
        appendJsonName(out_, account.name);
        out_.append("\",");
        appendMetadata(prefix + "process", account.processId);
        appendMetadata(prefix + "published", account.published);
        appendMetadata(prefix + "delivered", account.delivered);
        for (const auto& [cause, count] : account.drops)
            appendMetadata(std::string(prefix).append("dropped_").append(cause), count);
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
        char* at = putMembers(beginComplete(event.instrument), "", event.source, placed.start);
        // The difference may lie outside the range that the times are in.
        at = putMicroseconds(
            put(at, ",\"dur\":"),
            saturatingSubtract(time_.nanoseconds(placed.end), time_.nanoseconds(placed.start)));
        if (hasNoArgs(event)) [[likely]]
            return out_.writtenTo(put(at, "}"));
        out_.writtenTo(at);
        appendArgs(event);
    }

    /// A complete event up to its category. Gives its end, which has room for longestMembers.
    char* beginComplete(const Opaque* instrument) {
        char* const begin = out_.roomFor(TextBuffer::longestRoom);
        if (char* const end = heads_.put(begin, instrument)) [[likely]]
            return end;
        beginName(",\n{\"ph\":\"X\",\"name\":\"", instrument);
        out_.append("\",\"cat\":\"event\",");
        // Longer ones may have left the buffer.
        if (instrument->nameLength <= JsonHeads::longest)
            heads_.remember(instrument, {begin, out_.roomFor(0)});
        return out_.roomFor(longestMembers);
    }

    /// An event that is no part of its thread's nesting; where it changes threads, with an arrow.
    void appendPair(const PlacedEvent& placed) {
        const RecordedEvent& event = *placed.event;
        const std::uint32_t stopSource = event.finished ? event.stopSource : event.source;
        ++pairs_;
        appendEnd("b", "async", event, event.source, placed.start);
        appendArgs(event);
        if (stopSource != event.source) {
            appendEnd("s", "flow", event, event.source, placed.start);
            out_.append('}');
        }
        appendEnd("e", "async", event, stopSource, placed.end);
        out_.append('}');
        if (stopSource != event.source) {
            appendEnd("f", "flow", event, stopSource, placed.end);
            out_.append(",\"bp\":\"e\"}");
        }
    }

    /// One of the events that the pair's id connects.
    void appendEnd(std::string_view phase, std::string_view category, const RecordedEvent& event,
                   std::uint32_t source, std::int64_t time) {
        appendHead(phase, category, event.instrument, source, time);
        char* const at = put(out_.roomFor(longestMembers), ",\"id\":\"0x");
        out_.writtenTo(put(putHexadecimal(at, pairs_), "\""));
    }

    /// An event without a time that the trace could show, with its exact times instead.
    void appendAsInstant(const PlacedEvent& placed) {
        const RecordedEvent& event = *placed.event;
        appendHead("i", "event", event.instrument, event.source, placed.start);
        out_.append(",\"s\":\"t\"");
        JsonArgs args(out_);
        args.add("duration_ns",
                 saturatingSubtract(closingTime(stream_.facts(), event), event.start));
        if (timeSystem_ == TimeSystem::utc)
            args.add("start_ns", time_.utc(event.start));
        closeWith(args, event);
    }

    void appendInstantsUntil(std::int64_t time) {
        if (time < nextPoint_ || !withInstants_)
            return;
        while (hasPoint() && points_.front().time <= time) {
            appendPoint(points_.front());
            endItem();
            points_ = points_.subspan(1);
        }
        nextPoint_ = hasPoint() ? points_.front().time : INT64_MAX;
    }

    bool hasPoint() {
        if (points_.empty() && !pointsEnded_) {
            points_ = stream_.nextPoints();
            pointsEnded_ = points_.empty();
        }
        return !points_.empty();
    }

    void appendPoint(const RecordedPoint& point) {
        const std::optional<double> value = counterValueOf(point.context);
        if (point.type == EventPointType::instant && value)
            appendCounter(point, *value);
        else
            appendInstant(point);
    }

    void appendCounter(const RecordedPoint& point, double value) {
        appendHead("C", "counter", point.instrument, point.source, time_.at(point.time));
        JsonArgs args(out_);
        args.add("value", value);
        args.close();
        out_.append('}');
    }

    void appendInstant(const RecordedPoint& point) {
        appendHead("i", point.type == EventPointType::stop ? "stop" : "instant", point.instrument,
                   point.source, time_.at(point.time));
        out_.append(",\"s\":\"t\"");
        JsonArgs args(out_);
        args.addContext(point.context);
        args.close();
        out_.append('}');
    }

    /// Ends an event with what its args hold of the event itself.
    void appendArgs(const RecordedEvent& event) {
        if (hasNoArgs(event))
            return out_.append('}');
        JsonArgs args(out_);
        closeWith(args, event);
    }

    bool hasNoArgs(const RecordedEvent& event) const noexcept {
        return event.finished && event.context.empty() && !shownPlace(event);
    }

    /// Where its instrument stands in a program; null where that is not known or not asked for.
    const char* shownPlace(const RecordedEvent& event) const noexcept {
        // Pairs with the release in Controls::setPlace.
        return withArgs_ ? event.instrument->place.load(std::memory_order_acquire) : nullptr;
    }

    void closeWith(JsonArgs& args, const RecordedEvent& event) {
        if (!event.finished)
            args.add("unfinished", true);
        if (const char* place = shownPlace(event))
            args.add("src", std::string_view(place));
        args.addContext(event.context);
        args.close();
        out_.append('}');
    }

    /// Opens an event of any phase and tells what every one has.
    void appendHead(std::string_view phase, std::string_view category, const Opaque* instrument,
                    std::uint32_t source, std::int64_t time) {
        out_.append(",\n{\"ph\":\"");
        out_.append(phase);
        beginName("\",\"name\":\"", instrument);
        out_.append("\",\"cat\":\"");
        out_.append(category);
        out_.writtenTo(putMembers(out_.roomFor(longestMembers), "\",", source, time));
    }

    template <std::size_t Size>
    void beginName(const char (&before)[Size], const Opaque* instrument) {
        out_.writtenTo(put(out_.roomFor(Size), before));
        appendJsonName(out_, {instrument->name, instrument->nameLength});
    }

    /// Puts what follows an event's name, up to its time.
    template <std::size_t Size>
    char* putMembers(char* at, const char (&before)[Size], std::uint32_t source,
                     std::int64_t time) {
        at = tracks_.putIds(put(at, before), source);
        return times_.put(put(at, ",\"ts\":"), time_.nanoseconds(time));
    }
    static constexpr std::size_t longestMembers = TraceTracks::longestIds + 4 * longestNumber;

    EventStream& stream_;
    const TimeSystem timeSystem_;
    const bool withInstants_;
    const bool withArgs_;
    const TraceTime time_;
    const TraceTracks tracks_;
    TraceLayout layout_;
    TextBuffer out_;
    JsonHeads heads_;
    NearMicroseconds times_;
    TraceItemSink* const items_;
    std::span<const RecordedPoint> points_;  // that are yet to come
    bool pointsEnded_ = false;
    std::int64_t nextPoint_ = INT64_MIN;  // no point is earlier
    std::uint64_t pairs_ = 0;
};

}  // namespace

void writeTraceEventJson(EventStream& stream, TimeSystem timeSystem, std::int64_t minimumDuration,
                         TextSink& sink) {
    Writer(stream, timeSystem, minimumDuration, sink).write();
}

void writeTraceEventItems(EventStream& stream, TraceItemSink& sink) {
    Writer(stream, TimeSystem::monotonic, -1, sink, &sink).write();
}

}  // namespace instrument::detail
