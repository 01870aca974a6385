#include "zandor/instrument/trace_tracks.hpp"

#include <cerrno>
#include <map>
#include <optional>
#include <tuple>

#include "zandor/instrument/json_text.hpp"

namespace instrument::detail {

namespace {

std::string_view processName(const RecordedSource& source) {
    return source.processName.value_or(program_invocation_short_name);
}

void appendTextMember(TextBuffer& out, std::string_view name, std::uint64_t number) {
    out.append(",\"");
    out.append(name);
    out.append("\":\"");
    out.appendNumber(number);
    out.append('"');
}

}  // namespace

TraceTracks::TraceTracks(const RecordingFacts& facts) : facts_(facts) {
    std::map<std::tuple<std::optional<std::string_view>, std::uint64_t>, std::uint32_t> numbers;
    processes_.reserve(facts.sources.size());
    ids_.reserve(facts.sources.size());
    for (const RecordedSource& source : facts.sources) {
        const auto next = static_cast<std::uint32_t>(numbers.size() + 1);
        processes_.push_back(
            numbers.try_emplace({source.processName, source.processId}, next).first->second);
        ids_.push_back(makeIds(processes_.back(), static_cast<std::uint32_t>(processes_.size())));
    }
}

TraceTracks::Ids TraceTracks::makeIds(std::uint32_t process, std::uint32_t thread) noexcept {
    Ids ids{};
    char* const end =
        putDecimal(put(putDecimal(put(ids.text, "\"pid\":"), process), ",\"tid\":"), thread);
    ids.length = static_cast<std::uint32_t>(end - ids.text);
    return ids;
}

void TraceTracks::append(TextBuffer& out) const {
    std::uint32_t processes = 0;
    for (std::uint32_t source = 0; source < processes_.size(); ++source) {
        if (processes_[source] > processes) {
            processes = processes_[source];
            appendProcess(out, source);
        }
        appendThread(out, source);
    }
}

void TraceTracks::appendProcess(TextBuffer& out, std::uint32_t firstSource) const {
    const RecordedSource& source = facts_.sources[firstSource];
    if (firstSource > 0)
        out.append(',');
    appendHead(out, "process_name", firstSource);
    out.append("\"name\":\"");
    appendJsonName(out, processName(source));
    out.append('"');
    appendTextMember(out, "pid", source.processId);
    out.append("}},");
    appendSortIndex(out, "process_sort_index", firstSource, processes_[firstSource]);
}

void TraceTracks::appendThread(TextBuffer& out, std::uint32_t source) const {
    out.append(',');
    appendHead(out, "thread_name", source);
    out.append("\"name\":\"");
    appendJsonName(out, facts_.sources[source].name);
    out.append('"');
    appendTextMember(out, "tid", facts_.sources[source].threadId);
    appendTextMember(out, "source", facts_.sources[source].id);
    out.append("}},");
    appendSortIndex(out, "thread_sort_index", source, source + 1);
}

void TraceTracks::appendHead(TextBuffer& out, std::string_view name, std::uint32_t source) const {
    out.append("\n{\"ph\":\"M\",\"name\":\"");
    out.append(name);
    out.append("\",");
    out.writtenTo(putIds(out.roomFor(longestIds), source));
    out.append(",\"args\":{");
}

void TraceTracks::appendSortIndex(TextBuffer& out, std::string_view name, std::uint32_t source,
                                  std::uint32_t sortIndex) const {
    appendHead(out, name, source);
    out.append("\"sort_index\":");
    out.appendNumber(sortIndex);
    out.append("}}");
}

}  // namespace instrument::detail
