#include "call_tree.hpp"

#include <bitset>
#include <numeric>
#include <optional>
#include <utility>

#include "event_order.hpp"
#include "self_time.hpp"

namespace instrument::detail {

std::uint32_t CallTree::child(std::uint32_t parent, const Opaque* instrument) {
    const auto key = [&](std::uint32_t number) { return std::uint64_t{parent} << 32 | number; };
    if (nodes_.size() >= mostNodes_) {
        const auto known = children_.find(key(instrument->id));
        if (known != children_.end())
            return known->second;
        if (isRest(parent))
            return parent;
        instrument = nullptr;
    }
    const auto [place, isNew] =
        children_.try_emplace(key(instrument ? instrument->id : CallNode::none),
                              static_cast<std::uint32_t>(nodes_.size()));
    if (isNew)
        nodes_.push_back({parent, instrument, {}});
    return place->second;
}

void CallTree::give(std::uint32_t node, std::int64_t from, std::int64_t nanoseconds) {
    bins_.forEach(from, nanoseconds, [&](std::uint32_t bin, std::int64_t time) {
        addSaturating(cell(node, bin).self, time);
    });
}

std::vector<CallNode> callTree(EventStream& stream) {
    const std::size_t sources = stream.facts().sources.size();
    CallTree tree(TimeBins(0, 0, 1), sources);
    SelfTime<std::uint32_t> open(sources);
    const auto give = [&](std::uint32_t node, std::int64_t from, std::int64_t nanoseconds) {
        tree.give(node, from, nanoseconds);
    };
    forEachEnclosingFirst(stream, [&](const RecordedEvent& event) {
        const std::int64_t end = closingTime(stream.facts(), event);
        if (end < event.start)
            return;
        const std::uint32_t* parent = open.advance(event.source, event.start, give);
        const std::uint32_t node = tree.child(parent ? *parent : event.source, event.instrument);
        open.enter(event.source, event.start, end, node);
        tree.count(node, event.start);
    });
    for (std::uint32_t source = 0; source < sources; ++source)
        open.finish(source, give);
    return std::move(tree).nodes();
}

namespace {

constexpr std::uint32_t none = CallNode::none;

/// What a stack has with all that is called from it.
struct Extent {
    std::int64_t total = 0;
    std::bitset<256> bins;
};

std::vector<Extent> extentsOf(const std::vector<CallNode>& nodes) {
    std::vector<Extent> extents(nodes.size());
    for (std::size_t i = nodes.size(); i-- > 0;) {
        for (const auto& [bin, cell] : nodes[i].cells.entries()) {
            addSaturating(extents[i].total, cell.self);
            extents[i].bins.set(bin % extents[i].bins.size());
        }
        if (nodes[i].parent == none)
            continue;
        addSaturating(extents[nodes[i].parent].total, extents[i].total);
        extents[nodes[i].parent].bins |= extents[i].bins;
    }
    return extents;
}

class Trimmer {
  public:
    Trimmer(const std::vector<CallNode>& nodes, const TreeLimits& limits)
        : nodes_(nodes), isKept_(nodes.size()), places_(nodes.size(), none) {
        choose(limits);
    }

    TrimmedTree trimmed() && {
        placeThreads();
        for (std::size_t i = 0; i < nodes_.size(); ++i)
            if (nodes_[i].parent != none)
                place(i);
        return std::move(tree_);
    }

  private:
    /// Widest first; a parent is as wide as its children, and stands before them.
    void choose(const TreeLimits& limits) {
        const std::vector<Extent> extents = extentsOf(nodes_);
        std::vector<std::uint32_t> order(nodes_.size());
        std::iota(order.begin(), order.end(), 0u);
        std::ranges::stable_sort(order, std::greater<>(),
                                 [&](std::uint32_t node) { return extents[node].total; });
        std::size_t threads = 0, kept = 0, cells = 0;
        for (const std::uint32_t node : order) {
            const bool isThread = nodes_[node].parent == none;
            if (isThread ? threads == limits.threads : !isKept_[nodes_[node].parent])
                continue;
            // Its own, and those of a child that may have to stand for all others.
            cells += nodes_[node].cells.size() + extents[node].bins.count();
            if (kept == limits.nodes || cells > limits.cells)
                return;
            isKept_[node] = true;
            ++kept;
            threads += isThread;
        }
    }

    void placeThreads() {
        for (std::uint32_t i = 0; i < nodes_.size() && nodes_[i].parent == none; ++i) {
            if (!isKept_[i]) {
                ++tree_.moreThreads;
                continue;
            }
            places_[i] = static_cast<std::uint32_t>(tree_.nodes.size());
            tree_.nodes.push_back(nodes_[i]);
            tree_.sources.push_back(i);
        }
        if (tree_.moreThreads == 0)
            return;
        rest_ = static_cast<std::uint32_t>(tree_.nodes.size());
        tree_.nodes.emplace_back();
        for (std::uint32_t i = 0; i < nodes_.size() && nodes_[i].parent == none; ++i)
            if (!isKept_[i])
                places_[i] = *rest_;
    }

    void place(std::size_t i) {
        const std::uint32_t parent = places_[nodes_[i].parent];
        if (isKept_[i]) {
            places_[i] = static_cast<std::uint32_t>(tree_.nodes.size());
            tree_.nodes.push_back({parent, nodes_[i].instrument, nodes_[i].cells});
            return;
        }
        places_[i] = isRest(parent) ? parent : restOf(parent);
        tree_.nodes[places_[i]].cells.add(nodes_[i].cells);
    }

    bool isRest(std::uint32_t place) const {
        return place == rest_ ||
               (tree_.nodes[place].parent != none && !tree_.nodes[place].instrument);
    }

    std::uint32_t restOf(std::uint32_t parent) {
        const auto [place, isNew] =
            rests_.try_emplace(parent, static_cast<std::uint32_t>(tree_.nodes.size()));
        if (isNew)
            tree_.nodes.push_back({parent, nullptr, {}});
        return place->second;
    }

    const std::vector<CallNode>& nodes_;
    std::vector<bool> isKept_;
    std::vector<std::uint32_t> places_;  // of each node, or of what stands for it
    std::unordered_map<std::uint32_t, std::uint32_t> rests_;
    std::optional<std::uint32_t> rest_;  // what stands for other threads
    TrimmedTree tree_;
};

}  // namespace

TrimmedTree trim(const std::vector<CallNode>& nodes, const TreeLimits& limits) {
    return Trimmer(nodes, limits).trimmed();
}

}  // namespace instrument::detail
