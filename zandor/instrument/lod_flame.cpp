#include "lod_flame.hpp"

#include <algorithm>
#include <utility>

namespace instrument::detail {

void LodFlame::add(const LodEvent& event) {
    if (event.has(LodEvent::isInstant))
        return;
    const std::uint32_t* parent = open_.advance(event.source, event.start, give());
    const std::uint32_t node =
        tree_.child(parent ? *parent : event.source, names_.instrument(event.name));
    open_.enter(event.source, event.start, event.end, node);
    tree_.count(node, event.start);
}

void LodFlame::finish(std::size_t sources) {
    for (std::uint32_t source = 0; source < sources; ++source)
        open_.finish(source, give());
}

std::vector<CallNode> LodFlame::between(std::uint32_t first, std::uint32_t last) const {
    std::vector<CallNode> nodes;
    nodes.reserve(tree_.nodes().size());
    for (const CallNode& node : tree_.nodes()) {
        CallNode& summed = nodes.emplace_back(CallNode{node.parent, node.instrument, {}});
        for (const auto& [bin, cell] : node.cells.entries())
            if (first <= bin && bin <= last)
                summed.cells.at(0).add(cell);
    }
    return nodes;
}

std::vector<CallNode> stacksWithin(const TraceNames& names, std::size_t sources,
                                   std::span<const LodEvent> events, std::int64_t begin,
                                   std::int64_t end) {
    LodFlame flame(names, TimeBins(begin, 0, 1), sources);
    for (LodEvent event : events) {
        event.start = std::max(event.start, begin);
        event.end = std::min(event.end, end);
        flame.add(event);
    }
    flame.finish(sources);
    return flame.between(0, 0);
}

}  // namespace instrument::detail
