// One thread's counts: those without context by the instrument's number, those with one in a hash
// table. Only the thread itself changes them, and others read meanwhile.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "zandor/instrument/event_context.hpp"
#include "zandor/instrument/kept_context.hpp"
#include "zandor/instrument/lock.hpp"
#include "zandor/instrument/short_way.hpp"
#include "zandor/performance/mapped_chunks.hpp"

namespace instrument::detail {

class CountTable {
  public:
    /// Its base is written under the lock; relaxed for readers.
    struct Count : ShortCount {
        std::uint64_t sinceReset() const noexcept {
            // The base first: a reset that comes in between is not seen then.
            const std::uint64_t before = base.load(std::memory_order_relaxed);
            return count.load(std::memory_order_relaxed) - before;
        }
        /// Under the lock.
        void reset() noexcept {
            base.store(count.load(std::memory_order_relaxed), std::memory_order_relaxed);
        }
    };

    static_assert(sizeof(Count) == sizeof(ShortCount), "a row of them is one of short counts");

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
        return (context.empty() && countAgain(instrument, {})) ||
               countAny(instrument, context, lock);
    }

    /// The same where such an event was counted before; else does nothing.
    bool countAgain(const Opaque* instrument, ContextWords words) noexcept {
        Count* const known = words.empty() ? plain_.find(instrument->id) : find(instrument, words);
        if (!known || !known->instrument.load(std::memory_order_relaxed)) [[unlikely]]
            return false;
        known->countOne();
        return true;
    }

    /// Those without context, by the instrument's number; null when the system gives no memory. On
    /// the table's thread.
    ShortCount* plainCounts() noexcept { return plain_.provide(0) ? plain_.find(0) : nullptr; }

    /// Calls visit(instrument, words, Count&) for each count. From any thread.
    template <class Visit>
    void forEach(Visit visit) {
        plain_.forEach([&](Count& count) {
            if (const Opaque* const instrument = count.instrument.load(std::memory_order_acquire))
                visit(*instrument, ContextWords(), count);
        });
        forEachEntry([&](Entry& entry) {
            visit(*entry.instrument.load(std::memory_order_relaxed), entry.context(), entry);
        });
    }

  private:
    struct Entry : Count {
        const std::uint64_t* words;
        std::uint32_t wordCount;
        std::uint32_t hash;

        ContextWords context() const noexcept { return {words, wordCount}; }
        bool is(const Opaque* of, ContextWords with, std::uint32_t hashed) const noexcept {
            if (instrument.load(std::memory_order_relaxed) != of || hash != hashed ||
                wordCount != with.size())
                return false;
            for (std::size_t i = 0; i < wordCount; ++i)
                if (words[i] != with[i])
                    return false;
            return true;
        }
    };
    /// A power of two of entries follows. What it replaced stays for readers.
    struct alignas(Entry) Slots {
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

    static std::uint32_t hashOf(const Opaque* instrument, ContextWords words) noexcept {
        std::uint64_t hash = instrument->id + 1;
        for (const std::uint64_t word : words)
            hash = ((hash ^ hash >> 32) * 0x9e37'79b9'7f4a'7c15) ^ word;
        return static_cast<std::uint32_t>(hash * 0x9e37'79b9'7f4a'7c15 >> 32);
    }

    Entry* find(const Opaque* instrument, ContextWords words) const noexcept {
        Slots* const slots = slots_.load(std::memory_order_relaxed);
        return slots ? &place(*slots, instrument, words, hashOf(instrument, words)) : nullptr;
    }
    /// The entry, or the free one where it belongs.
    static Entry& place(Slots& slots, const Opaque* instrument, ContextWords words,
                        std::uint32_t hash) noexcept {
        for (std::size_t i = hash;; ++i) {
            Entry& entry = slots.entries()[i & (slots.capacity - 1)];
            if (entry.is(instrument, words, hash) ||
                !entry.instrument.load(std::memory_order_relaxed))
                return entry;
        }
    }
    template <class Visit>
    void forEachEntry(Visit visit) {
        // Pairs with the release in grow.
        Slots* const slots = slots_.load(std::memory_order_acquire);
        for (std::size_t i = 0; slots && i < slots->capacity; ++i)
            if (Entry& entry = slots->entries()[i];
                entry.instrument.load(std::memory_order_acquire))
                visit(entry);
    }

    bool countAny(const Opaque* instrument, const EventContext& context, Lock& lock) noexcept;
    bool countFirst(const Opaque* instrument) noexcept;
    bool grow(Lock& lock) noexcept;
    bool reserveWords(std::size_t count) noexcept;

    const void* thread_;
    /// Released by the table's thread, acquired by readers; relaxed for the former.
    std::atomic<Slots*> slots_{nullptr};
    std::size_t used_ = 0;
    Block* blocks_ = nullptr;
    std::uint64_t* freeWords_ = nullptr;
    std::uint64_t* endOfWords_ = nullptr;
    /// Without context, by the instrument's number. Those beyond are in the hash table.
    MappedChunks<Count, ShortOperations::counts, 512> plain_;
};

}  // namespace instrument::detail
