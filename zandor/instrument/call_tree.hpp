// The stacks of a recording as one tree: who called whom, how often and for how long, and when.
#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "event_stream.hpp"
#include "saturating.hpp"
#include "time_bins.hpp"

namespace instrument::detail {

struct CallCell {
    std::int64_t calls = 0;
    std::int64_t self = 0;  ///< nanoseconds

    void add(const CallCell& other) noexcept {
        calls += other.calls;
        addSaturating(self, other.self);
    }
};

/// A distinct stack. Those of the threads have no parent and no instrument.
struct CallNode {
    static constexpr std::uint32_t none = 0xffffffff;

    std::uint32_t parent = none;
    const Opaque* instrument = nullptr;  ///< null below a parent: several, put together
    SparseValues<CallCell> cells;
};

/// The nodes of all sources, each behind its parent; the first are the sources, in their order.
class ZANDOR_INSTRUMENT_API CallTree {
  public:
    /// Past `mostNodes` what is new is put together below what called it.
    CallTree(TimeBins bins, std::size_t sources, std::size_t mostNodes = CallNode::none)
        : bins_(bins), mostNodes_(mostNodes), nodes_(sources) {}

    std::uint32_t child(std::uint32_t parent, const Opaque* instrument);
    /// A call counts where it starts.
    void count(std::uint32_t node, std::int64_t start) { ++cell(node, bins_.of(start)).calls; }
    void give(std::uint32_t node, std::int64_t from, std::int64_t nanoseconds);

    const std::vector<CallNode>& nodes() const& noexcept { return nodes_; }
    std::vector<CallNode> nodes() && { return std::move(nodes_); }

  private:
    CallCell& cell(std::uint32_t node, std::uint32_t bin) { return nodes_[node].cells.at(bin); }

    bool isRest(std::uint32_t node) const noexcept {
        return nodes_[node].parent != CallNode::none && !nodes_[node].instrument;
    }

    TimeBins bins_;
    std::size_t mostNodes_;
    std::vector<CallNode> nodes_;
    std::unordered_map<std::uint64_t, std::uint32_t> children_;  // by parent and instrument
};

/// That of a stream's events, without times.
ZANDOR_INSTRUMENT_API std::vector<CallNode> callTree(EventStream& stream);

struct TreeLimits {
    std::size_t threads = 200;
    std::size_t nodes = 8'000;
    std::size_t cells = 150'000;
};

struct TrimmedTree {
    std::vector<CallNode> nodes;         ///< each behind its parent, the threads first
    std::vector<std::uint32_t> sources;  ///< of the threads, as many as were kept
    std::size_t moreThreads = 0;         ///< that the last of the roots stands for, where any
};

/// The widest stacks. What others had is given to one child without an instrument of the innermost
/// stack that was kept around them, so that sums stay.
ZANDOR_INSTRUMENT_API TrimmedTree trim(const std::vector<CallNode>& nodes,
                                       const TreeLimits& limits);

}  // namespace instrument::detail
