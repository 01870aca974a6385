#include "lod_json.hpp"

#include <set>

namespace instrument::detail {
namespace {

constexpr std::size_t longestText = 300;

std::string_view shortened(std::string_view text) {
    if (text.size() <= longestText)
        return text;
    std::size_t end = longestText;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xc0) == 0x80)
        --end;
    return text.substr(0, end);
}

}  // namespace

void LodJson::text(std::string_view text) {
    separate();
    out_.append('"');
    appendJsonText(out_, shortened(text));
    out_.append('"');
}

void LodJson::name(const Opaque* instrument) {
    separate();
    out_.append('"');
    appendJsonName(out_, shortened({instrument->name, instrument->nameLength}));
    out_.append('"');
}

void appendRows(LodJson& out, const std::vector<LodRowSlices>& rows, const TraceNames& names) {
    std::set<std::uint32_t> used;
    out.key("rows");
    out.open('[');
    for (const LodRowSlices& row : rows) {
        out.open('[');
        out.numbers(row.source, static_cast<unsigned>(row.row.kind), row.row.place);
        out.open('[');
        for (const LodSlice& slice : row.slices) {
            used.insert(slice.name);
            out.time(slice.begin);
            out.numbers(saturatingSubtract(slice.end, slice.begin), slice.name, slice.events,
                        slice.marks, slice.serial, slice.busy);
        }
        out.close(']');
        out.close(']');
    }
    out.close(']');
    out.key("names");
    out.open('{');
    for (const std::uint32_t name : used) {
        out.key(std::to_string(name));
        out.name(names.instrument(name));
    }
    out.close('}');
}

void appendTree(LodJson& out, const TrimmedTree& tree, std::span<const RecordedSource> sources) {
    out.key("threads");
    out.open('[');
    for (const std::uint32_t source : tree.sources) {
        out.open('[');
        out.text(sources[source].processName.value_or(""));
        out.text(sources[source].name);
        out.close(']');
    }
    out.close(']');
    out.member("moreThreads", tree.moreThreads);
    std::unordered_map<const Opaque*, std::size_t> numbers;
    std::vector<const Opaque*> names;
    out.key("tree");
    out.open('[');
    for (const CallNode& node : tree.nodes) {
        out.open('[');
        out.number(node.parent == CallNode::none ? -1 : static_cast<std::int64_t>(node.parent));
        if (node.instrument && numbers.try_emplace(node.instrument, names.size()).second)
            names.push_back(node.instrument);
        out.number(node.instrument ? static_cast<std::int64_t>(numbers[node.instrument]) : -1);
        for (const auto& [part, cell] : node.cells.entries())
            out.numbers(part, cell.calls, cell.self);
        out.close(']');
    }
    out.close(']');
    out.key("names");
    out.open('[');
    for (const Opaque* name : names)
        out.name(name);
    out.close(']');
}

}  // namespace instrument::detail
