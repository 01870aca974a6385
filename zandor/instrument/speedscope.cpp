#include "speedscope.hpp"

#include <algorithm>
#include <set>
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
    Writer(EventStream& stream, TextSink& sink)
        : stream_(stream), threads_(stream.facts().sources.size()), out_(sink) {
        forEachEnclosingFirst(stream, [this](const RecordedEvent& event) { learn(event); });
    }

    void write() {
        out_.append(
            "{\"$schema\":\"https://www.speedscope.app/file-format-schema.json\","
            "\"shared\":{\"frames\":[");
        appendFrames();
        out_.append("]},\n\"profiles\":[");
        bool isFirst = true;
        for (std::uint32_t source = 0; source < threads_.size(); ++source) {
            if (threads_[source].frames.empty())
                continue;
            out_.append(std::exchange(isFirst, false) ? "\n" : ",\n");
            appendProfile(source);
        }
        out_.append("\n]}\n");
        out_.flush();
    }

  private:
    /// What a profile begins with.
    struct Thread {
        std::vector<const Opaque*> frames;  ///< as they appear
        std::int64_t first = INT64_MAX;
        std::int64_t last = INT64_MIN;
    };
    struct Open {
        std::uint32_t frame;
        std::int64_t end;
    };

    bool isShown(const RecordedEvent& event) const noexcept {
        return closingTime(stream_.facts(), event) >= event.start;
    }

    void learn(const RecordedEvent& event) {
        if (!isShown(event))
            return;
        Thread& thread = threads_[event.source];
        if (known_.insert({event.source, event.instrument}).second)
            thread.frames.push_back(event.instrument);
        thread.first = std::min(thread.first, event.start);
        thread.last = std::max(thread.last, closingTime(stream_.facts(), event));
    }

    void appendFrames() {
        for (const Thread& thread : threads_) {
            for (const Opaque* instrument : thread.frames) {
                const auto next = static_cast<std::uint32_t>(frames_.size());
                if (!frames_.try_emplace(instrument, next).second)
                    continue;
                out_.append(next == 0 ? "\n{\"name\":\"" : ",\n{\"name\":\"");
                appendJsonName(out_, {instrument->name, instrument->nameLength});
                out_.append("\"}");
            }
        }
    }

    void appendProfile(std::uint32_t source) {
        out_.append("{\"type\":\"evented\",\"name\":\"");
        const RecordedSource& thread = stream_.facts().sources[source];
        const std::string_view process = thread.processName.value_or("");
        appendJsonName(out_, std::string(process)
                                 .append(process.empty() ? "" : " ")
                                 .append(std::to_string(thread.processId))
                                 .append("/")
                                 .append(thread.name));
        out_.append("\",\"unit\":\"nanoseconds\",\"startValue\":");
        out_.appendNumber(at(threads_[source].first));
        out_.append(",\"endValue\":");
        out_.appendNumber(at(threads_[source].last));
        out_.append(",\"events\":[");
        isFirstEdge_ = true;
        forEachEnclosingFirst(
            stream_, [this](const RecordedEvent& event) { appendEvent(event); }, source);
        closeUntil(INT64_MAX);
        out_.append("]}");
    }

    void appendEvent(const RecordedEvent& event) {
        if (!isShown(event))
            return;
        closeUntil(event.start);
        std::int64_t end = closingTime(stream_.facts(), event);
        if (!open_.empty())
            end = std::min(end, open_.back().end);
        const std::uint32_t frame = frames_.find(event.instrument)->second;
        appendEdge('O', frame, event.start);
        open_.push_back({frame, end});
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
        return saturatingSubtract(time, stream_.facts().originMonotonic);
    }

    EventStream& stream_;
    std::vector<Thread> threads_;  // by source
    std::set<std::pair<std::uint32_t, const Opaque*>> known_;
    std::unordered_map<const Opaque*, std::uint32_t> frames_;
    std::vector<Open> open_;
    bool isFirstEdge_ = true;
    TextBuffer out_;
};

}  // namespace

void writeSpeedscope(EventStream& stream, TextSink& sink) {
    Writer(stream, sink).write();
}

}  // namespace instrument::detail
