#include "zandor/instrument/exports.hpp"

#include <algorithm>

#include "zandor/instrument/collapsed_stacks.hpp"
#include "zandor/instrument/file_sink.hpp"
#include "zandor/instrument/recorder_core.hpp"
#include "zandor/instrument/recorder_snapshot.hpp"
#include "zandor/instrument/recorder_stream.hpp"
#include "zandor/instrument/recording.hpp"
#include "zandor/instrument/source_info.hpp"
#include "zandor/instrument/summary.hpp"
#include "zandor/instrument/text_buffer.hpp"
#include "zandor/instrument/trace_event_json.hpp"

namespace instrument {

namespace {

class StringSink : public TextSink {
  public:
    /// Makes room for what a trace of the recording commonly takes, so that the text seldom moves;
    /// memory that is not written to costs nothing.
    explicit StringSink(const InstrumentRecorder& recorder) {
        text_.reserve(4096 + 4 * recorder.bytesInUse());
    }
    void write(std::string_view text) override { text_ += text; }
    std::string take() { return std::move(text_); }

  private:
    std::string text_;
};

}  // namespace

TextSink::~TextSink() = default;

// UTC has steps that many events share, whose order is that of their ends: pieces would part them.
void writeTraceEventJson(const InstrumentRecorder& recorder, TimeSystem timeSystem,
                         std::chrono::nanoseconds minimumDuration, TextSink& sink) {
    if (timeSystem == TimeSystem::utc) {
        const auto recording = detail::takeRecording(recorder);
        detail::writeTraceEventJson(recording, timeSystem, minimumDuration.count(), sink);
        return;
    }
    detail::RecorderStream stream(recorder);
    detail::writeTraceEventJson(stream, timeSystem, minimumDuration.count(), sink);
}

std::string getAllCompleteEventsTraceEventJson(const InstrumentRecorder& recorder,
                                               TimeSystem timeSystem,
                                               std::chrono::nanoseconds minimumDuration) {
    StringSink sink(recorder);
    writeTraceEventJson(recorder, timeSystem, minimumDuration, sink);
    return sink.take();
}

std::vector<std::string> getAllEventsCollapsedStacks(const InstrumentRecorder& recorder) {
    return detail::collapsedStacks(detail::takeRecording(recorder));
}

void saveTraceEventJson(const InstrumentRecorder& recorder, TimeSystem timeSystem,
                        std::chrono::nanoseconds minimumDuration,
                        const std::filesystem::path& file) {
    detail::FileSink sink(file);
    writeTraceEventJson(recorder, timeSystem, minimumDuration, sink);
    sink.commit();
}

void saveCollapsedStacks(const InstrumentRecorder& recorder, const std::filesystem::path& file) {
    detail::FileSink sink(file);
    detail::TextBuffer out(sink);
    for (const std::string& line : getAllEventsCollapsedStacks(recorder)) {
        out.append(line);
        out.append('\n');
    }
    out.flush();
    sink.commit();
}

std::vector<EventSummary> summarize(const InstrumentRecorder& recorder) {
    return detail::summarize(detail::takeRecording(recorder));
}

std::vector<std::string> threadNames(const InstrumentRecorder& recorder) {
    const detail::Recording recording = detail::takeRecording(recorder);
    std::vector<bool> hasEvents(recording.sources.size());
    for (const detail::RecordedEvent& event : recording.events)
        hasEvents[event.source] = true;
    std::vector<std::string> names;
    for (std::size_t i = 0; i < hasEvents.size(); ++i)
        if (hasEvents[i])
            names.emplace_back(recording.sources[i].name);
    std::ranges::sort(names);
    return names;
}

std::map<std::uint64_t, std::string> threadNamesById(const InstrumentRecorder& recorder) {
    std::map<std::uint64_t, std::string> names;
    const detail::Snapshot snapshot(recorder.core());
    snapshot.forEachStretch([&](const detail::Stretch& stretch, bool) {
        detail::SourceInfo* const source = stretch.state.info;
        if (source && !source->processName)
            names[source->threadId] = source->name();
    });
    return names;
}

}  // namespace instrument
