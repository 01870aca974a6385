// An insert-only hash table of entries that live as long as the process, also found by dense
// number.
//
// Looking up takes no lock. Inserting is done under the user's lock; each step is published by one
// store, so that a fork at any instant leaves the child a sound table.
#pragma once

#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "zandor/instrument/fork_private.hpp"

namespace instrument::detail {

inline std::uint64_t hashText(std::string_view text) noexcept {
    constexpr std::uint64_t factor = 0x9e3779b97f4a7c15;
    std::uint64_t hash = text.size() * factor;
    const char* at = text.data();
    std::size_t left = text.size();
    for (; left >= 8; at += 8, left -= 8) {
        std::uint64_t word;
        std::memcpy(&word, at, 8);
        hash = (hash ^ word) * factor;
        hash ^= hash >> 29;
    }
    if (left) {
        std::uint64_t word = 0;
        std::memcpy(&word, at, left);
        hash = (hash ^ word) * factor;
    }
    return hash ^ (hash >> 32);
}

/// `Entry` has `std::string_view key() const noexcept`.
template <class Entry>
class TextTable {
  public:
    constexpr TextTable() noexcept = default;

    std::uint32_t size() const noexcept {
        // Pairs with the release in insert: entries below the size are there.
        return size_.load(std::memory_order_acquire);
    }

    /// The entry of this number; null for one that is not below the size.
    Entry* at(std::uint32_t number) const noexcept {
        if (number >= size())
            return nullptr;
        const Place place(number);
        return blocks_[place.block].load(std::memory_order_acquire)[place.index].load(
            std::memory_order_acquire);
    }

    Entry* find(std::string_view key, std::uint64_t hash) const noexcept {
        // Pairs with the release in grow.
        const Buckets* buckets = buckets_.load(std::memory_order_acquire);
        if (!buckets)
            return nullptr;
        for (std::size_t i = hash;; ++i) {
            // Pairs with the release in put.
            Entry* entry = buckets->slots()[i & buckets->mask].load(std::memory_order_acquire);
            if (!entry || entry->key() == key)
                return entry;
        }
    }

    /// Makes room for one more, before its entry is made with the number size(). False when the
    /// system gives no memory.
    bool reserve() noexcept {
        const std::uint32_t number = size_.load(std::memory_order_relaxed);
        const Buckets* buckets = buckets_.load(std::memory_order_relaxed);
        if ((!buckets || (number + 1) * 2 > buckets->mask) && !grow())
            return false;
        // The release pairs with the acquire in at.
        std::atomic<Slot*>& block = blocks_[Place(number).block];
        if (!block.load(std::memory_order_relaxed))
            block.store(makeSlots(Place::size(Place(number).block)), std::memory_order_release);
        return block.load(std::memory_order_relaxed) != nullptr;
    }

    void insert(Entry& entry, std::uint64_t hash) noexcept {
        const std::uint32_t number = size_.load(std::memory_order_relaxed);
        const Place place(number);
        blocks_[place.block].load(std::memory_order_relaxed)[place.index].store(
            &entry, std::memory_order_release);
        size_.store(number + 1, std::memory_order_release);
        put(*buckets_.load(std::memory_order_relaxed), entry, hash);
    }

  private:
    using Slot = std::atomic<Entry*>;

    struct Buckets {
        std::size_t mask;
        const Slot* slots() const noexcept { return reinterpret_cast<const Slot*>(this + 1); }
        Slot* slots() noexcept { return reinterpret_cast<Slot*>(this + 1); }
    };

    /// Entries by number stand in blocks, each twice as big as the one before.
    struct Place {
        static constexpr std::uint32_t first = 64;
        static constexpr std::size_t size(std::uint32_t block) noexcept {
            return std::size_t{first} << block;
        }
        explicit Place(std::uint32_t number) noexcept
            : block(static_cast<std::uint32_t>(std::bit_width(number / first + 1) - 1)),
              index(number - first * ((1u << block) - 1)) {}
        std::uint32_t block;
        std::uint32_t index;
    };

    static Slot* makeSlots(std::size_t count) noexcept {
        return static_cast<Slot*>(mapMemory(count * sizeof(Slot)));
    }

    static void put(Buckets& buckets, Entry& entry, std::uint64_t hash) noexcept {
        std::size_t i = hash;
        while (buckets.slots()[i & buckets.mask].load(std::memory_order_relaxed))
            ++i;
        // Pairs with the acquire in find: whoever finds the entry sees what is in it.
        buckets.slots()[i & buckets.mask].store(&entry, std::memory_order_release);
    }

    // Readers may still be in the old buckets, so these stay; all together they are as big as the
    // new.
    bool grow() noexcept {
        const Buckets* old = buckets_.load(std::memory_order_relaxed);
        const std::size_t count = old ? (old->mask + 1) * 2 : 256;
        auto* made = static_cast<Buckets*>(mapMemory(sizeof(Buckets) + count * sizeof(Slot)));
        if (!made)
            return false;
        made->mask = count - 1;
        for (std::uint32_t i = 0; i < size_.load(std::memory_order_relaxed); ++i) {
            Entry& entry = *at(i);
            put(*made, entry, hashText(entry.key()));
        }
        buckets_.store(made, std::memory_order_release);
        return true;
    }

    // Written by one thread at a time, who reads them relaxed; each release there pairs with the
    // acquire of the same in find and at.
    std::atomic<Buckets*> buckets_{nullptr};
    std::atomic<std::uint32_t> size_{0};
    std::atomic<Slot*> blocks_[26]{};
};

}  // namespace instrument::detail
