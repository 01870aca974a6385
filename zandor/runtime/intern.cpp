#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>

#include "zandor/runtime/class_system.hpp"
#include "zandor/runtime/fork_locks.hpp"

namespace kobs::internal {

namespace {

/// Entries are never destroyed: texts are interned for the life of the process.
struct Entry {
    const std::string text;
    const std::size_t hash;
    const Entry* const next;
};

/// A few data-type names a plug-in: chains stay short.
constexpr std::size_t bucketCount = 4096;

// An entry is stored with release order by the thread that made it; lookups acquire it. Relaxed
// under the lock.
constinit std::array<std::atomic<const Entry*>, bucketCount> buckets{};

const Entry* find(const Entry* entry, std::string_view text, std::size_t hash) noexcept {
    while (entry && (entry->hash != hash || entry->text != text))
        entry = entry->next;
    return entry;
}

const Entry* insert(std::atomic<const Entry*>& bucket, std::string_view text, std::size_t hash) {
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
    const std::size_t hash = std::hash<std::string_view>()(text);
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
