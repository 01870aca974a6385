#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>

#include "zandor/runtime/class_system.hpp"
#include "zandor/runtime/fork_locks.hpp"

namespace kobs::internal {

namespace {

/// Entries are never destroyed: texts are interned for the life of the process.
struct Entry {
    const std::string text;
    const std::uint64_t hash;
    const Entry* const next;
};

/// A few data-type names a plug-in: chains stay short.
constexpr std::size_t bucketCount = 4096;

// An entry is stored with release order by the thread that made it; lookups acquire it. Relaxed
// under the lock.
constinit std::array<std::atomic<const Entry*>, bucketCount> buckets{};

std::uint64_t mix(std::uint64_t hash, std::uint64_t part) noexcept {
    hash = (hash ^ part) * 0x9e37'79b9'7f4a'7c15;
    return hash ^ hash >> 32;
}

std::uint64_t wordAt(const char* text) noexcept {
    std::uint64_t word = 0;
    std::memcpy(&word, text, sizeof word);
    return word;
}

/// Of whole words, the last of which may lie over the one before: each result of a published method
/// looks its type's name up.
std::uint64_t hashOf(std::string_view text) noexcept {
    std::uint64_t hash = text.size();
    if (text.size() < sizeof hash) {
        for (const char character : text)
            hash = mix(hash, static_cast<unsigned char>(character));
        return hash;
    }
    const char* const last = text.data() + text.size() - sizeof hash;
    for (const char* word = text.data(); word < last; word += sizeof hash)
        hash = mix(hash, wordAt(word));
    return mix(hash, wordAt(last));
}

bool isEqual(std::string_view known, std::string_view text) noexcept {
    constexpr std::size_t word = sizeof(std::uint64_t);
    if (known.size() != text.size() || text.size() < word)
        return known == text;
    const std::size_t last = text.size() - word;
    for (std::size_t at = 0; at < last; at += word)
        if (wordAt(known.data() + at) != wordAt(text.data() + at))
            return false;
    return wordAt(known.data() + last) == wordAt(text.data() + last);
}

const Entry* find(const Entry* entry, std::string_view text, std::uint64_t hash) noexcept {
    while (entry && (entry->hash != hash || !isEqual(entry->text, text)))
        entry = entry->next;
    return entry;
}

const Entry* insert(std::atomic<const Entry*>& bucket, std::string_view text, std::uint64_t hash) {
    const std::lock_guard lock(zandor::internLock);
    // Relaxed: written under the lock only. The release pairs with the acquire in makeInterned.
    const Entry* first = bucket.load(std::memory_order_relaxed);
    if (const Entry* entry = find(first, text, hash))
        return entry;
    const Entry* entry = new Entry{std::string(text), hash, first};
    bucket.store(entry, std::memory_order_release);
    return entry;
}

}  // namespace

InternedString makeInterned(std::string_view text) {
    const std::uint64_t hash = hashOf(text);
    std::atomic<const Entry*>& bucket = buckets[hash % bucketCount];
    // Pairs with the release in insert.
    const Entry* entry = find(bucket.load(std::memory_order_acquire), text, hash);
    if (!entry)
        entry = insert(bucket, text, hash);
    return InternedString(&entry->text);
}

std::string_view InternedString::text() const noexcept {
    return entry_ ? std::string_view(*entry_) : std::string_view();
}

}  // namespace kobs::internal
