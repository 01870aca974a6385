// A row of elements that grows by chunks of mapped, zeroed memory and never moves: one thread adds,
// others may look at what is there.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <type_traits>

#include "zandor/instrument/fork_private.hpp"

namespace instrument::detail {

template <class T, std::size_t perChunk, std::size_t chunkCount>
class MappedChunks {
    static_assert(std::is_trivially_destructible_v<T>, "all-zero is its first state");

  public:
    static constexpr std::size_t capacity = perChunk * chunkCount;

    MappedChunks() = default;
    ~MappedChunks() {
        // Relaxed: no other thread is left.
        for (std::atomic<T*>& chunk : chunks_)
            if (T* const memory = chunk.load(std::memory_order_relaxed))
                unmapMemory(memory, chunkBytes);
            else
                break;
    }
    MappedChunks(const MappedChunks&) = delete;
    MappedChunks& operator=(const MappedChunks&) = delete;

    /// Has memory for the element of this index; all before it have theirs.
    bool provide(std::size_t index) noexcept {
        if (index >= capacity)
            return false;
        std::atomic<T*>& chunk = chunks_[index / perChunk];
        if (chunk.load(std::memory_order_relaxed)) [[likely]]
            return true;
        T* const memory = static_cast<T*>(mapMemory(chunkBytes));
        // Pairs with the acquire in operator[].
        chunk.store(memory, std::memory_order_release);
        return memory != nullptr;
    }

    /// The same where those before it may have none yet.
    bool provideUpTo(std::size_t index) noexcept {
        for (std::size_t chunk = 0; chunk <= index / perChunk; ++chunk)
            if (!provide(chunk * perChunk))
                return false;
        return true;
    }

    /// Null where there is no memory for it. On the thread that adds.
    T* find(std::size_t index) const noexcept {
        if (index >= capacity) [[unlikely]]
            return nullptr;
        T* const chunk = chunks_[index / perChunk].load(std::memory_order_relaxed);
        return chunk ? chunk + index % perChunk : nullptr;
    }
    /// Calls visit(T&) for all that there is memory for. From any thread.
    template <class Visit>
    void forEach(Visit visit) const {
        for (const std::atomic<T*>& place : chunks_) {
            // Pairs with the release in provide.
            T* const chunk = place.load(std::memory_order_acquire);
            if (!chunk)
                return;
            for (std::size_t i = 0; i < perChunk; ++i)
                visit(chunk[i]);
        }
    }

    T& operator[](std::size_t index) const noexcept {
        return chunks_[index / perChunk].load(std::memory_order_acquire)[index % perChunk];
    }

  private:
    static constexpr std::size_t chunkBytes = perChunk * sizeof(T);
    // Released by the thread that makes one, acquired in operator[].
    std::array<std::atomic<T*>, chunkCount> chunks_;
};

}  // namespace instrument::detail
