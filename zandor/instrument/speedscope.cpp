#include "speedscope.hpp"

#include <algorithm>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "event_order.hpp"
#include "json_text.hpp"
#include "saturating.hpp"
#include "text_buffer.hpp"

namespace instrument::detail {
namespace {

class Writer {
  public:
    Writer(const Recording& recording, TextSink& sink)
        : recording_(recording), bySource_(recording.sources.size()), out_(sink) {
        forEachEnclosingFirst(recording.events, [this](const RecordedEvent& event) {
            if (closingTime(recording_, event) >= event.start)
                bySource_[event.source].push_back(&event);
        });
    }

    void write() {
        out_.append(
            "{\"$schema\":\"https://www.speedscope.app/file-format-schema.json\","
            "\"shared\":{\"frames\":[");
        appendFrames();
        out_.append("]},\n\"profiles\":[");
        bool isFirst = true;
        for (std::uint32_t source = 0; source < bySource_.size(); ++source) {
            if (bySource_[source].empty())
                continue;
            out_.append(std::exchange(isFirst, false) ? "\n" : ",\n");
            appendProfile(source);
        }
        out_.append("\n]}\n");
        out_.flush();
    }

  private:
    struct Open {
        std::uint32_t frame;
        std::int64_t end;
    };

    void appendFrames() {
        for (const std::vector<const RecordedEvent*>& events : bySource_) {
            for (const RecordedEvent* event : events) {
                const auto next = static_cast<std::uint32_t>(frames_.size());
                if (!frames_.try_emplace(event->instrument, next).second)
                    continue;
                out_.append(next == 0 ? "\n{\"name\":\"" : ",\n{\"name\":\"");
                appendJsonName(out_, {event->instrument->name, event->instrument->nameLength});
                out_.append("\"}");
            }
        }
    }

    void appendProfile(std::uint32_t source) {
        const auto& events = bySource_[source];
        out_.append("{\"type\":\"evented\",\"name\":\"");
        const RecordedSource& thread = recording_.sources[source];
        const std::string_view process = thread.processName.value_or("");
        appendJsonName(out_, std::string(process)
                                 .append(process.empty() ? "" : " ")
                                 .append(std::to_string(thread.processId))
                                 .append("/")
                                 .append(thread.name));
        out_.append("\",\"unit\":\"nanoseconds\",\"startValue\":");
        out_.appendNumber(at(events.front()->start));
        out_.append(",\"endValue\":");
        std::int64_t last = events.front()->start;
        for (const RecordedEvent* event : events)
            last = std::max(last, closingTime(recording_, *event));
        out_.appendNumber(at(last));
        out_.append(",\"events\":[");
        appendEvents(events);
        out_.append("]}");
    }

    void appendEvents(const std::vector<const RecordedEvent*>& events) {
        isFirstEdge_ = true;
        for (const RecordedEvent* event : events) {
            closeUntil(event->start);
            std::int64_t end = closingTime(recording_, *event);
            if (!open_.empty())
                end = std::min(end, open_.back().end);
            const std::uint32_t frame = frames_.find(event->instrument)->second;
            appendEdge('O', frame, event->start);
            open_.push_back({frame, end});
        }
        closeUntil(INT64_MAX);
    }

    void closeUntil(std::int64_t time) {
        while (!open_.empty() && open_.back().end <= time) {
            appendEdge('C', open_.back().frame, open_.back().end);
            open_.pop_back();
        }
    }

    void appendEdge(char type, std::uint32_t frame, std::int64_t time) {
        out_.append(std::exchange(isFirstEdge_, false) ? "\n{\"type\":\"" : ",\n{\"type\":\"");
        out_.append(type);
        out_.append("\",\"frame\":");
        out_.appendNumber(frame);
        out_.append(",\"at\":");
        out_.appendNumber(at(time));
        out_.append('}');
    }

    std::int64_t at(std::int64_t time) const noexcept {
        return saturatingSubtract(time, recording_.originMonotonic);
    }

    const Recording& recording_;
    std::vector<std::vector<const RecordedEvent*>> bySource_;
    std::unordered_map<const Opaque*, std::uint32_t> frames_;
    std::vector<Open> open_;
    bool isFirstEdge_ = true;
    TextBuffer out_;
};

}  // namespace

void writeSpeedscope(const Recording& recording, TextSink& sink) {
    Writer(recording, sink).write();
}

}  // namespace instrument::detail
