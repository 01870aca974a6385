#include "zandor/instrument/trace_file.hpp"

#include <algorithm>
#include <set>
#include <string>

#include "collapsed_stacks.hpp"
#include "file_sink.hpp"
#include "gzip_sink.hpp"
#include "loaded_trace.hpp"
#include "saturating.hpp"
#include "speedscope.hpp"
#include "summary.hpp"
#include "text_buffer.hpp"
#include "trace_event_json.hpp"
#include "trace_selection.hpp"

namespace instrument {
namespace {

namespace fs = std::filesystem;
using detail::Recording;
using detail::saturatingSubtract;

/// Writes a file that is whole or not there; compressed where its name says so.
template <class Write>
void saveWith(const fs::path& file, Write write) {
    detail::FileSink sink(file);
    if (file.extension() == ".gz") {
        detail::GzipSink compressed(sink);
        write(static_cast<TextSink&>(compressed));
        compressed.finish();
    } else {
        write(static_cast<TextSink&>(sink));
    }
    sink.commit();
}

void writeJson(const Recording& recording, TextSink& sink) {
    detail::writeTraceEventJson(recording, TimeSystem::monotonic, -1, sink);
}

}  // namespace

struct TraceFile::Loaded {
    explicit Loaded(const fs::path& file) : trace(file) {}
    detail::LoadedTrace trace;

    const Recording& recording() const noexcept { return trace.recording; }
};

TraceFile::TraceFile(const fs::path& file) : loaded_(std::make_unique<Loaded>(file)) {}

TraceFile::~TraceFile() = default;

void TraceFile::select(const TraceSelection& selection) {
    detail::select(loaded_->trace.recording, selection);
}

void TraceFile::saveTraceEventJson(const fs::path& file) const {
    saveWith(file, [&](TextSink& sink) { writeJson(loaded_->recording(), sink); });
}

std::vector<fs::path> TraceFile::saveTraceEventJson(const fs::path& file,
                                                    std::uint64_t mostBytes) const {
    std::vector<fs::path> files;
    detail::forEachPart(loaded_->recording(), mostBytes, [&](const Recording& part) {
        files.push_back(detail::numbered(file, files.size() + 1));
        saveWith(files.back(), [&](TextSink& sink) { writeJson(part, sink); });
    });
    return files;
}

void TraceFile::saveCollapsedStacks(const fs::path& file) const {
    Recording named;
    const Recording* recording = &loaded_->recording();
    std::vector<std::string> names;
    if (processCount() > 1) {
        named = *recording;
        names.reserve(named.sources.size());
        for (detail::RecordedSource& source : named.sources)
            source.name = names.emplace_back(std::string(source.processName.value_or(""))
                                                 .append(" ")
                                                 .append(std::to_string(source.processId))
                                                 .append("/")
                                                 .append(source.name));
        recording = &named;
    }
    saveWith(file, [&](TextSink& sink) {
        detail::TextBuffer out(sink);
        for (const std::string& line : detail::collapsedStacks(*recording)) {
            out.append(line);
            out.append('\n');
        }
        out.flush();
    });
}

void TraceFile::saveSpeedscope(const fs::path& file) const {
    saveWith(file, [&](TextSink& sink) { detail::writeSpeedscope(loaded_->recording(), sink); });
}

std::vector<EventSummary> TraceFile::summarize() const {
    return detail::summarize(loaded_->recording());
}

RecorderDrops TraceFile::drops() const noexcept {
    return loaded_->recording().drops;
}

std::int64_t TraceFile::duration() const noexcept {
    const Recording& recording = loaded_->recording();
    return std::max<std::int64_t>(saturatingSubtract(recording.lastTime, recording.originMonotonic),
                                  0);
}

std::uint32_t TraceFile::processCount() const noexcept {
    return loaded_->trace.processes;
}

std::vector<std::string> TraceFile::threadNames() const {
    const auto& sources = loaded_->recording().sources;
    std::set<std::string> names;
    for (const detail::RecordedEvent& event : loaded_->recording().events)
        names.emplace(sources[event.source].name);
    return {names.begin(), names.end()};
}

std::uint64_t TraceFile::eventCount() const noexcept {
    return loaded_->recording().events.size() + loaded_->recording().strayPoints.size();
}

std::uint64_t TraceFile::damagedBlocks() const noexcept {
    return loaded_->trace.damagedBlocks;
}

bool TraceFile::isComplete() const noexcept {
    return loaded_->trace.hasIndex;
}

}  // namespace instrument
