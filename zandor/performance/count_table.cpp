#include "zandor/performance/count_table.hpp"

#include <algorithm>
#include <utility>

#include "zandor/instrument/fork_private.hpp"

namespace instrument::detail {

namespace {

constexpr std::size_t firstCapacity = 64;
constexpr std::size_t wordsPerBlock = 4096;

}  // namespace

CountTable::~CountTable() {
    for (Slots* slots = slots_.load(std::memory_order_relaxed); slots;) {
        Slots* const gone = std::exchange(slots, slots->replaced);
        unmapMemory(gone, gone->bytes);
    }
    while (Block* const gone = blocks_) {
        blocks_ = gone->before;
        unmapMemory(gone, gone->bytes);
    }
}

bool CountTable::countAny(const Opaque* instrument, const EventContext& context,
                          Lock& lock) noexcept {
    if (context.empty() && countFirst(instrument))
        return true;
    // The words go where they would stay, and stay there if they are new.
    const std::size_t wordCount = keptContextWords(context);
    if (wordCount > 0 && !(reserveWords(wordCount) && keepContext(context, freeWords_)))
        return false;
    const ContextWords words(freeWords_, wordCount);
    const std::uint32_t hash = hashOf(instrument, words);
    Slots* slots = slots_.load(std::memory_order_relaxed);
    if (!slots) {
        if (!grow(lock))
            return false;
        slots = slots_.load(std::memory_order_relaxed);
    }
    Entry* entry = &place(*slots, instrument, words, hash);
    if (!entry->instrument.load(std::memory_order_relaxed)) [[unlikely]] {
        if (used_ * 2 >= slots->capacity) {
            if (!grow(lock))
                return false;
            entry = &place(*slots_.load(std::memory_order_relaxed), instrument, words, hash);
        }
        entry->words = words.data();
        entry->wordCount = static_cast<std::uint32_t>(wordCount);
        entry->hash = hash;
        entry->instrument.store(instrument, std::memory_order_release);
        freeWords_ += wordCount;
        ++used_;
    }
    entry->countOne();
    return true;
}

/// Without context. False where the number is beyond those that have places, or there is no memory.
bool CountTable::countFirst(const Opaque* instrument) noexcept {
    if (!plain_.provideUpTo(instrument->id))
        return false;
    Count& count = plain_[instrument->id];
    count.countOne();
    // Pairs with the acquire in forEach.
    count.instrument.store(instrument, std::memory_order_release);
    return true;
}

/// Under the lock, so that no reset writes to what is being replaced.
bool CountTable::grow(Lock& lock) noexcept {
    const Locked locked(lock);
    Slots* const old = slots_.load(std::memory_order_relaxed);
    const std::size_t capacity = old ? old->capacity * 2 : firstCapacity;
    const std::size_t bytes = sizeof(Slots) + capacity * sizeof(Entry);
    auto* const larger = static_cast<Slots*>(mapMemory(bytes));
    if (!larger)
        return false;
    larger->capacity = capacity;
    larger->bytes = bytes;
    larger->replaced = old;
    forEachEntry([&](Entry& entry) {
        const Opaque* const instrument = entry.instrument.load(std::memory_order_relaxed);
        Entry& moved = place(*larger, instrument, entry.context(), entry.hash);
        moved.words = entry.words;
        moved.wordCount = entry.wordCount;
        moved.hash = entry.hash;
        moved.count.store(entry.count.load(std::memory_order_relaxed), std::memory_order_relaxed);
        moved.base.store(entry.base.load(std::memory_order_relaxed), std::memory_order_relaxed);
        moved.instrument.store(instrument, std::memory_order_relaxed);
    });
    // Pairs with the acquire in forEach: with the table come its entries.
    slots_.store(larger, std::memory_order_release);
    return true;
}

bool CountTable::reserveWords(std::size_t count) noexcept {
    if (static_cast<std::size_t>(endOfWords_ - freeWords_) >= count)
        return true;
    const std::size_t bytes =
        sizeof(Block) + std::max(wordsPerBlock, count) * sizeof(std::uint64_t);
    auto* const block = static_cast<Block*>(mapMemory(bytes));
    if (!block)
        return false;
    *block = {bytes, blocks_};
    blocks_ = block;
    freeWords_ = reinterpret_cast<std::uint64_t*>(block + 1);
    endOfWords_ = freeWords_ + std::max(wordsPerBlock, count);
    return true;
}

}  // namespace instrument::detail
