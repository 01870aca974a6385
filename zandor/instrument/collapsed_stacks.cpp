#include "zandor/instrument/collapsed_stacks.hpp"

#include <algorithm>
#include <map>
#include <unordered_map>

#include "zandor/instrument/event_order.hpp"
#include "zandor/instrument/printable_text.hpp"
#include "zandor/instrument/self_time.hpp"

namespace instrument::detail {

namespace {

/// The distinct stacks of a recording as a tree: a root for each source, a node for each
/// instrument that some event of it was inside another's.
class StackTree {
  public:
    using Node = std::uint32_t;

    explicit StackTree(const std::vector<std::string>& roots) {
        for (const std::string& root : roots)
            frames_.push_back({none, frameName(root), 0, false});
    }

    Node child(Node parent, const Opaque* instrument) {
        const auto [place, isNew] =
            children_.try_emplace({parent, instrument}, static_cast<Node>(frames_.size()));
        if (isNew) {
            frames_.push_back(
                {parent, frameName({instrument->name, instrument->nameLength}), 0, false});
            frames_[parent].hasChildren = true;
        }
        return place->second;
    }

    void give(Node node, std::int64_t nanoseconds) {
        frames_[node].self = saturatingAdd(frames_[node].self, nanoseconds);
    }

    /// Self times by stack. Instruments whose names look alike share theirs.
    std::map<std::string, std::int64_t> selfTimes(std::size_t sources) const {
        std::map<std::string, std::int64_t> times;
        for (Node node = static_cast<Node>(sources); node < frames_.size(); ++node) {
            if (frames_[node].self == 0 && frames_[node].hasChildren)
                continue;
            std::int64_t& time = times[stack(node)];
            time = saturatingAdd(time, frames_[node].self);
        }
        return times;
    }

  private:
    static constexpr Node none = 0xffffffff;
    struct Frame {
        Node parent;
        std::string name;
        std::int64_t self;
        bool hasChildren;
    };
    struct Edge {
        Node parent;
        const Opaque* instrument;
        bool operator==(const Edge&) const = default;
    };
    struct EdgeHash {
        std::size_t operator()(const Edge& edge) const noexcept {
            return std::hash<std::uint64_t>()(std::uint64_t{edge.parent} << 32 |
                                              edge.instrument->id);
        }
    };

    std::string stack(Node node) const {
        std::vector<Node> path;
        for (; node != none; node = frames_[node].parent)
            path.push_back(node);
        std::string text = frames_[path.back()].name;
        for (std::size_t i = path.size() - 1; i-- > 0;)
            text.append(";").append(frames_[path[i]].name);
        return text;
    }

    std::vector<Frame> frames_;
    std::unordered_map<Edge, Node, EdgeHash> children_;
};

StackTree stackTree(EventStream& stream, const std::vector<std::string>& roots) {
    StackTree tree(roots);
    SelfTime<StackTree::Node> selfTime(roots.size());
    const auto give = [&](StackTree::Node node, std::int64_t, std::int64_t time) {
        tree.give(node, time);
    };
    forEachEnclosingFirst(stream, [&](const RecordedEvent& event) {
        const std::int64_t end = closingTime(stream.facts(), event);
        if (end < event.start)
            return;
        const auto* innermost = selfTime.advance(event.source, event.start, give);
        const auto node = tree.child(innermost ? *innermost : event.source, event.instrument);
        selfTime.enter(event.source, event.start, end, node);
    });
    for (std::uint32_t source = 0; source < roots.size(); ++source)
        selfTime.finish(source, give);
    return tree;
}

}  // namespace

std::vector<std::string> collapsedStacks(EventStream& stream,
                                         const std::vector<std::string>& roots) {
    std::vector<std::string> lines;
    for (const auto& [stack, self] : stackTree(stream, roots).selfTimes(roots.size()))
        lines.push_back(stack + ' ' + std::to_string(std::max<std::int64_t>(self, 1)));
    std::sort(lines.begin(), lines.end());
    return lines;
}

std::vector<std::string> collapsedStacks(const Recording& recording) {
    std::vector<std::string> threads;
    for (const RecordedSource& source : recording.sources)
        threads.emplace_back(source.name);
    RecordingStream stream(recording);
    return collapsedStacks(stream, threads);
}

}  // namespace instrument::detail
