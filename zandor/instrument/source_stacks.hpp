// A stack for each source, all in one pool: a recording may have very many sources.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace instrument::detail {

template <typename Entry>
class SourceStacks {
  public:
    explicit SourceStacks(std::size_t sources) : tops_(sources, none) {}

    bool empty(std::uint32_t source) const noexcept { return tops_[source] == none; }
    Entry& top(std::uint32_t source) noexcept { return nodes_[tops_[source]].entry; }

    void push(std::uint32_t source, const Entry& entry) {
        const std::uint32_t below = tops_[source];
        if (free_ == none) {
            tops_[source] = static_cast<std::uint32_t>(nodes_.size());
            nodes_.push_back({entry, below});
            return;
        }
        tops_[source] = free_;
        free_ = nodes_[free_].below;
        nodes_[tops_[source]] = {entry, below};
    }

    void pop(std::uint32_t source) noexcept {
        const std::uint32_t node = tops_[source];
        tops_[source] = nodes_[node].below;
        nodes_[node].below = free_;
        free_ = node;
    }

  private:
    static constexpr std::uint32_t none = 0xffffffff;
    struct Node {
        Entry entry;
        std::uint32_t below;  // the next one down, or the next free one
    };
    std::vector<std::uint32_t> tops_;
    std::vector<Node> nodes_;
    std::uint32_t free_ = none;
};

}  // namespace instrument::detail
