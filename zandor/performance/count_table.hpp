// One thread's counts by instrument and context: a hash table that only its thread changes, and
// that others read meanwhile.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "zandor/instrument/event_context.hpp"
#include "zandor/instrument/kept_context.hpp"
#include "zandor/instrument/lock.hpp"

namespace instrument::detail {

class CountTable {
  public:
    struct Entry {
        /// Null: free. Written last, release; pairs with the acquire of readers. Relaxed for the
        /// table's thread, which alone writes it.
        std::atomic<const Opaque*> instrument;
        const std::uint64_t* words;
        std::uint32_t wordCount;
        std::uint32_t hash;
        // Written by the table's thread alone. Relaxed: whoever has to see a count learned of its
        // event otherwise.
        std::atomic<std::uint64_t> count;
        /// What was counted before the last reset. Under the lock; relaxed for readers.
        std::atomic<std::uint64_t> base;

        ContextWords context() const noexcept { return {words, wordCount}; }
        std::uint64_t sinceReset() const noexcept {
            // The base first: a reset that comes in between is not seen then.
            const std::uint64_t before = base.load(std::memory_order_relaxed);
            return count.load(std::memory_order_relaxed) - before;
        }
    };

    explicit CountTable(const void* thread) noexcept : thread_(thread) {}
    ~CountTable();
    CountTable(const CountTable&) = delete;
    CountTable& operator=(const CountTable&) = delete;

    /// Whose it is.
    bool isOf(const void* thread) const noexcept { return thread_ == thread; }
    CountTable* next = nullptr;       // in the chain of all threads' tables
    CountTable* nextChain = nullptr;  // among those given up

    /// Counts one event. On the table's thread. False when the system gives no memory. The lock is
    /// taken where the table grows.
    bool count(const Opaque* instrument, const EventContext& context, Lock& lock) noexcept {
        return (context.empty() && countAgain(instrument)) || countAny(instrument, context, lock);
    }

    /// The same without context, where such an event was counted before; else does nothing.
    bool countAgain(const Opaque* instrument) noexcept {
        Entry* const known = find(instrument);
        if (known)
            countIn(*known);
        return known != nullptr;
    }

    /// Calls visit(Entry&) for each entry. From any thread.
    template <class Visit>
    void forEach(Visit visit) {
        // Pairs with the release in grow.
        Slots* const slots = slots_.load(std::memory_order_acquire);
        for (std::size_t i = 0; slots && i < slots->capacity; ++i)
            if (Entry& entry = slots->entries()[i];
                entry.instrument.load(std::memory_order_acquire))
                visit(entry);
    }

  private:
    /// A power of two of entries follows. What it replaced stays for readers.
    struct Slots {
        std::size_t capacity;
        std::size_t bytes;
        Slots* replaced;
        Entry* entries() noexcept { return reinterpret_cast<Entry*>(this + 1); }
    };
    /// Words of contexts follow.
    struct Block {
        std::size_t bytes;
        Block* before;
    };

    static void countIn(Entry& entry) noexcept {
        entry.count.store(entry.count.load(std::memory_order_relaxed) + 1,
                          std::memory_order_relaxed);
    }
    static std::uint32_t hashOf(const Opaque* instrument, ContextWords words) noexcept {
        std::uint64_t hash = instrument->id + 1;
        for (const std::uint64_t word : words)
            hash = ((hash ^ hash >> 32) * 0x9e37'79b9'7f4a'7c15) ^ word;
        return static_cast<std::uint32_t>(hash * 0x9e37'79b9'7f4a'7c15 >> 32);
    }

    /// The entry of the instrument without context, where there is one.
    Entry* find(const Opaque* instrument) const noexcept {
        Slots* const slots = slots_.load(std::memory_order_relaxed);
        for (std::size_t i = hashOf(instrument, {}); slots; ++i) {
            Entry& entry = slots->entries()[i & (slots->capacity - 1)];
            const Opaque* const known = entry.instrument.load(std::memory_order_relaxed);
            if (known == instrument && entry.wordCount == 0) [[likely]]
                return &entry;
            if (!known)
                return nullptr;
        }
        return nullptr;
    }
    bool countAny(const Opaque* instrument, const EventContext& context, Lock& lock) noexcept;
    static Entry& place(Slots& slots, const Opaque* instrument, ContextWords words,
                        std::uint32_t hash) noexcept;
    bool grow(Lock& lock) noexcept;
    bool reserveWords(std::size_t count) noexcept;

    const void* thread_;
    /// Released by the table's thread, acquired by readers; relaxed for the former.
    std::atomic<Slots*> slots_{nullptr};
    std::size_t used_ = 0;
    Block* blocks_ = nullptr;
    std::uint64_t* freeWords_ = nullptr;
    std::uint64_t* endOfWords_ = nullptr;
};

}  // namespace instrument::detail
