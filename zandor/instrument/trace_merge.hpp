// Puts what several blocks have in one order, with those blocks in memory alone whose times
// overlap.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "trace_block_events.hpp"

namespace instrument::detail {

/// `Traits` is EventEntry or PointEntry, for entries of its kind.
template <class Entry, class Traits, class Block = RecordBlock>
class TraceMerge {
  public:
    using Item = typename Traits::Item;

    /// Begins with these blocks, by the time of their first; and entries that are in memory.
    void begin(std::vector<Block*> blocks, BlockItems<Entry> resident = {}) {
        waiting_ = std::move(blocks);
        std::ranges::stable_sort(waiting_, std::greater<>(),
                                 [](const Block* block) { return Traits::firstOf(*block); });
        active_.clear();
        passed_.reset();
        finished_.clear();
        add(std::move(resident));
    }

    /// The next items, all of those at the last one's time; none at the end. They stay until the
    /// next call. `load(block)` gives a block's entries.
    template <class Load>
    std::span<const Item> next(Load load) {
        items_.clear();
        finished_.clear();
        passed_.reset();
        loadOverlapping(load);
        if (const auto alone = takeAlone(); !alone.empty())
            return alone;
        for (bool isFull = false; !isFull;) {
            loadOverlapping(load);
            if (active_.empty())
                break;
            std::ranges::pop_heap(active_, isLater);
            isFull = takeFrom(*active_.back());
            if (active_.back()->isAtEnd()) {
                finished_.push_back(std::move(active_.back()->block.contexts));
                active_.pop_back();
            } else {
                std::ranges::push_heap(active_, isLater);
            }
        }
        return items_;
    }

  private:
    static constexpr std::size_t enough = 4096;
    static constexpr std::size_t mostFinished = 8;

    struct Active {
        BlockItems<Entry> block;
        std::size_t next = 0;

        const Entry& front() const noexcept { return block.items[next]; }
        bool isAtEnd() const noexcept { return next == block.items.size(); }
    };
    using ActivePtr = std::unique_ptr<Active>;

    static bool isLater(const ActivePtr& a, const ActivePtr& b) noexcept {
        return Traits::less(b->front(), a->front());
    }

    void add(BlockItems<Entry> block) {
        if (block.items.empty())
            return;
        active_.push_back(std::make_unique<Active>(Active{std::move(block)}));
        std::ranges::push_heap(active_, isLater);
    }

    template <class Load>
    void loadOverlapping(Load load) {
        while (!waiting_.empty() &&
               (active_.empty() ||
                Traits::firstOf(*waiting_.back()) <= Traits::timeOf(active_.front()->front()))) {
            Block& block = *waiting_.back();
            waiting_.pop_back();
            add(load(block));
        }
    }

    /// What the only block has before any other, as it stands there: most have no other beside
    /// them.
    std::span<const Item> takeAlone() {
        if constexpr (!std::is_same_v<Entry, Item>) {
            return {};
        } else {
            if (active_.size() != 1)
                return {};
            Active& only = *active_.front();
            std::span<const Entry> items = std::span(only.block.items).subspan(only.next);
            if (!waiting_.empty()) {
                const auto end = std::ranges::lower_bound(items, Traits::firstOf(*waiting_.back()),
                                                          {}, Traits::timeOf);
                items = items.first(static_cast<std::size_t>(end - items.begin()));
            }
            only.next += items.size();
            if (only.isAtEnd()) {
                passed_ = std::move(active_.front());
                active_.clear();
            }
            return items;
        }
    }

    /// Takes what comes before all of the others; whether that is enough.
    bool takeFrom(Active& first) {
        const auto others = std::span(active_).first(active_.size() - 1);
        const Entry* const limit = others.empty() ? nullptr : &others.front()->front();
        const std::int64_t loaded =
            waiting_.empty() ? RecordBlock::never : Traits::firstOf(*waiting_.back());
        do {
            const Entry& entry = first.front();
            const std::int64_t time = Traits::timeOf(entry);
            if (isEnough() && time != lastTime_)
                return true;
            if ((time >= loaded && !waiting_.empty()) || (limit && Traits::less(*limit, entry)))
                return false;
            items_.push_back(Traits::itemOf(entry));
            lastTime_ = time;
            ++first.next;
        } while (!first.isAtEnd());
        return false;
    }

    /// Also when few of many blocks were selected, whose contexts are in memory until the next
    /// call.
    bool isEnough() const noexcept {
        return items_.size() >= enough || (finished_.size() >= mostFinished && !items_.empty());
    }

    std::vector<Block*> waiting_;         // the first in time last
    std::vector<ActivePtr> active_;       // a heap, the first in time on top
    std::vector<ContextArena> finished_;  // of blocks that items were of
    std::vector<Item> items_;
    ActivePtr passed_;  // that all items of were given where they stand
    std::int64_t lastTime_ = 0;
};

}  // namespace instrument::detail
