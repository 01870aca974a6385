// Who called whom, and for how long, in a window of time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "call_tree.hpp"
#include "lod_event.hpp"
#include "self_time.hpp"
#include "trace_names.hpp"

namespace instrument::detail {

/// The stacks of events, by parts of time, in memory of fixed size.
class LodFlame {
  public:
    LodFlame(const TraceNames& names, TimeBins bins, std::size_t sources)
        : names_(names), bins_(bins), tree_(bins, sources, mostNodes), open_(sources) {}

    /// Events come in order (see enclosesFirst); instants are left out.
    void add(const LodEvent& event);
    /// To be said behind the last one.
    void finish(std::size_t sources);

    /// The stacks of the parts from `first` up to `last`, each as one.
    std::vector<CallNode> between(std::uint32_t first, std::uint32_t last) const;
    const TimeBins& bins() const noexcept { return bins_; }

  private:
    static constexpr std::size_t mostNodes = 20'000;

    auto give() {
        return [this](std::uint32_t node, std::int64_t from, std::int64_t nanoseconds) {
            tree_.give(node, from, nanoseconds);
        };
    }

    const TraceNames& names_;
    TimeBins bins_;
    CallTree tree_;
    SelfTime<std::uint32_t> open_;
};

/// The stacks of events that are in order, as far as they lie in [begin, end).
std::vector<CallNode> stacksWithin(const TraceNames& names, std::size_t sources,
                                   std::span<const LodEvent> events, std::int64_t begin,
                                   std::int64_t end);

}  // namespace instrument::detail
