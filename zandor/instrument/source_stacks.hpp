// A stack for each source, all in one pool: a recording may have very many sources.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace instrument::detail {

template <typename Entry>
class SourceStacks {
  public:
    explicit SourceStacks(std::size_t sources) : tops_(sources, none) {}

    void clear() noexcept {
        std::fill(tops_.begin(), tops_.end(), none);
        nodes_.clear();
        free_ = none;
    }

    /// The stack of one source, for as long as the pool lives.
    class Stack {
      public:
        bool empty() const noexcept { return top_ == none; }
        Entry& top() const noexcept { return pool_.nodes_[top_].entry; }

        void pop() noexcept {
            Node& node = pool_.nodes_[top_];
            pool_.free_ = std::exchange(top_, std::exchange(node.below, pool_.free_));
        }

        /// Pops entries as long as they are `done`: all at once, since many often are.
        template <typename Done>
        void popWhile(Done done) noexcept {
            Node* const nodes = pool_.nodes_.data();
            Node* last = nullptr;
            std::uint32_t left = top_;
            for (; left != none && done(nodes[left].entry); left = last->below)
                last = &nodes[left];
            if (last) {
                last->below = std::exchange(pool_.free_, top_);
                top_ = left;
            }
        }

        /// Puts an entry on top, to be filled in.
        Entry& push() {
            if (pool_.free_ == none)
                pool_.addNode();
            Node& node = pool_.nodes_[pool_.free_];
            top_ = std::exchange(pool_.free_, std::exchange(node.below, top_));
            return node.entry;
        }

      private:
        friend class SourceStacks;
        Stack(SourceStacks& pool, std::uint32_t& top) noexcept : pool_(pool), top_(top) {}
        SourceStacks& pool_;
        std::uint32_t& top_;
    };
    Stack of(std::uint32_t source) noexcept { return {*this, tops_[source]}; }

  private:
    static constexpr std::uint32_t none = 0xffffffff;
    struct Node {
        Entry entry;
        std::uint32_t below;  // the next one down, or the next free one
    };

    void addNode() {
        free_ = static_cast<std::uint32_t>(nodes_.size());
        nodes_.push_back({{}, none});
    }

    std::vector<std::uint32_t> tops_;
    std::vector<Node> nodes_;
    std::uint32_t free_ = none;
};

}  // namespace instrument::detail
