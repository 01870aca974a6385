#include "zandor/instrument/trace_file.hpp"

#include <algorithm>
#include <string>

#include "call_tree.hpp"
#include "collapsed_stacks.hpp"
#include "compressed_file.hpp"
#include "report_data.hpp"
#include "saturating.hpp"
#include "speedscope.hpp"
#include "summary.hpp"
#include "text_buffer.hpp"
#include "trace_event_json.hpp"
#include "trace_parts.hpp"
#include "trace_stream.hpp"

namespace instrument {
namespace {

namespace fs = std::filesystem;
using detail::RecordedEvent;
using detail::RecordedSource;

/// Writes a file that is whole or not there; compressed where its name says so.
template <class Write>
void saveWith(const fs::path& file, Write write) {
    detail::CompressedFile sink(file);
    write(static_cast<TextSink&>(sink));
    sink.close();
    sink.commit();
}

class TextInto : public TextSink {
  public:
    explicit TextInto(std::string& text) : text_(text) {}
    void write(std::string_view text) override { text_.append(text); }

  private:
    std::string& text_;
};

std::string rootFrameOf(const RecordedSource& source, bool isOneOfSeveral) {
    if (!isOneOfSeveral)
        return std::string(source.name);
    return std::string(source.processName.value_or(""))
        .append(" ")
        .append(std::to_string(source.processId))
        .append("/")
        .append(source.name);
}

}  // namespace

struct TraceFile::Stream {
    Stream(const fs::path& file, TraceProgress told)
        : progress(std::move(told)), events(file, [this](std::uint64_t bytes) { tell(bytes); }) {}

    void tell(std::uint64_t bytes) {
        if (progress)
            progress(bytesRead += bytes);
    }

    TraceProgress progress;
    std::uint64_t bytesRead = 0;
    detail::TraceStream events;
};

TraceFile::TraceFile(const fs::path& file, TraceProgress progress)
    : stream_(std::make_unique<Stream>(file, std::move(progress))) {}

TraceFile::~TraceFile() = default;

void TraceFile::select(const TraceSelection& selection) {
    stream_->events.select(selection);
}

void TraceFile::saveTraceEventJson(const fs::path& file) const {
    saveWith(file, [&](TextSink& sink) {
        detail::writeTraceEventJson(stream_->events, TimeSystem::monotonic, -1, sink);
    });
}

std::vector<fs::path> TraceFile::saveTraceEventJson(const fs::path& file,
                                                    std::uint64_t mostBytes) const {
    detail::TraceParts parts(file, mostBytes);
    detail::writeTraceEventItems(stream_->events, parts);
    return parts.commit();
}

void TraceFile::saveCollapsedStacks(const fs::path& file) const {
    std::vector<std::string> roots;
    for (const RecordedSource& source : stream_->events.facts().sources)
        roots.push_back(rootFrameOf(source, processCount() > 1));
    saveWith(file, [&](TextSink& sink) {
        detail::TextBuffer out(sink);
        for (const std::string& line : detail::collapsedStacks(stream_->events, roots)) {
            out.append(line);
            out.append('\n');
        }
        out.flush();
    });
}

void TraceFile::saveSpeedscope(const fs::path& file) const {
    saveWith(file, [&](TextSink& sink) { detail::writeSpeedscope(stream_->events, sink); });
}

std::vector<EventSummary> TraceFile::summarize() const {
    return detail::summarize(stream_->events);
}

std::vector<TraceStack> TraceFile::stacks() const {
    std::vector<TraceStack> stacks;
    const auto& sources = stream_->events.facts().sources;
    for (const detail::CallNode& node : detail::callTree(stream_->events)) {
        TraceStack& stack = stacks.emplace_back();
        stack.parent = node.parent;
        stack.name = node.instrument
                         ? std::string_view(node.instrument->name, node.instrument->nameLength)
                         : sources[stacks.size() - 1].name;
        for (const auto& [bin, cell] : node.cells.entries()) {
            stack.calls += cell.calls;
            detail::addSaturating(stack.self, cell.self);
        }
    }
    return stacks;
}

std::string TraceFile::reportData() const {
    std::string text;
    TextInto sink(text);
    detail::writeReportData(stream_->events, processCount(), sink);
    return text;
}

LineSamples TraceFile::lineSamples() const {
    LineSamples samples = stream_->events.blocks().lineSamples();
    const detail::RecordingFacts& facts = stream_->events.facts();
    for (LinePeriod& period : samples.periods) {
        period.begin = detail::saturatingSubtract(period.begin, facts.originMonotonic);
        period.end = detail::saturatingSubtract(period.end, facts.originMonotonic);
    }
    const auto& processes = stream_->events.blocks().processes();
    for (LineSamples::Thread& thread : samples.threads) {
        const std::uint64_t process = processes[thread.process]->facts().processId;
        for (const RecordedSource& source : facts.sources)
            if (source.threadId == thread.id && source.processId == process)
                thread.name = source.name;
    }
    return samples;
}

RecorderDrops TraceFile::drops() const noexcept {
    return stream_->events.facts().drops;
}

std::int64_t TraceFile::duration() const noexcept {
    const detail::RecordingFacts& facts = stream_->events.facts();
    return std::max<std::int64_t>(detail::saturatingSubtract(facts.lastTime, facts.originMonotonic),
                                  0);
}

std::uint32_t TraceFile::processCount() const noexcept {
    return static_cast<std::uint32_t>(stream_->events.blocks().processes().size());
}

std::vector<std::string> TraceFile::threadNames() const {
    const auto& sources = stream_->events.facts().sources;
    std::vector<bool> hasEvents(sources.size());
    forEachPiece(stream_->events, [&](std::span<const RecordedEvent> events) {
        for (const RecordedEvent& event : events)
            hasEvents[event.source] = true;
    });
    std::vector<std::string> names;
    for (std::size_t i = 0; i < sources.size(); ++i)
        if (hasEvents[i])
            names.emplace_back(sources[i].name);
    std::ranges::sort(names);
    return names;
}

std::uint64_t TraceFile::eventCount() const {
    std::uint64_t count = 0;
    forEachPiece(stream_->events,
                 [&](std::span<const RecordedEvent> events) { count += events.size(); });
    for (auto points = stream_->events.nextPoints(); !points.empty();
         points = stream_->events.nextPoints())
        count += points.size();
    return count;
}

std::uint64_t TraceFile::bytesOfRecords() const noexcept {
    return stream_->events.blocks().recordBytes();
}

std::uint64_t TraceFile::damagedBlocks() const noexcept {
    return stream_->events.blocks().damaged();
}

bool TraceFile::isComplete() const noexcept {
    return stream_->events.blocks().hasIndex();
}

}  // namespace instrument
