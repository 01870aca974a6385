// Room for a track's records: where it comes from, and what gives way for it at the bound on
// memory. All of it under the recorder's lock.
#pragma once

#include <cstddef>
#include <cstdint>

#include "recorder_storage.hpp"
#include "zandor/instrument/recorder.hpp"

namespace instrument::detail {

/// What the room is for.
enum class Purpose : std::uint8_t {
    begin,  ///< a start or instant: leaves room for the stops of open events, where new ones are
            ///< refused
    end,    ///< a stop: may use that room
};

/// Why there is none.
enum class Denial : std::uint8_t { none, bound, system };

struct Room {
    Chunk* chunk = nullptr;
    Denial denial = Denial::none;
};

class Growth {
  public:
    /// `used` is what all generations of the recorder use.
    Growth(Generation& generation, std::size_t used, const RecorderLimits& limits) noexcept
        : generation_(generation), limits_(limits), used_(used), usedBefore_(used) {}

    /// A generation in memory of its own; null when the system gives none.
    static Generation* makeGeneration(std::uint64_t number, const RecorderLimits& limits) noexcept;
    /// Gives all its memory back.
    static void destroyGeneration(Generation* generation) noexcept;

    /// A track without chunk, not published yet; null when there is no memory or the bound is
    /// passed.
    Track* makeTrack(const ThreadState& thread, Denial& denial) noexcept;
    /// A chunk for at least `words` of records.
    Room makeRoom(const Track& track, std::size_t words, Purpose purpose) noexcept;
    /// Makes it the track's newest. What was made for stops takes nothing else.
    void append(Track& track, Chunk& chunk, Purpose purpose) noexcept;

    /// Bytes that were taken since construction.
    std::size_t taken() const noexcept { return used_ - usedBefore_; }

  private:
    std::size_t sizeFor(const Track& track, std::size_t words, Purpose purpose) const noexcept;
    std::ptrdiff_t reserveFor(const Track& track, std::size_t bytes) const noexcept;
    bool holdsReserve(const Track& track, std::size_t bytes, std::size_t used,
                      std::size_t free) const noexcept;
    bool restoreReserve(const Track& track) noexcept;
    Chunk* takeFree(std::size_t place) noexcept;
    Room take(const Track& track, std::size_t size, std::size_t least, Purpose purpose) noexcept;
    Room makeChunk(std::size_t bytes) noexcept;
    void noteSealed(Chunk& chunk) noexcept;
    bool reclaim() noexcept;
    bool dropOldest() noexcept;
    void noteDropped(Track& track, const Chunk& chunk) noexcept;
    void noteDropped(Track& track, const LostRange& gone) noexcept;
    std::byte* cut(std::size_t bytes) noexcept;

    Generation& generation_;
    const RecorderLimits& limits_;
    std::size_t used_;
    std::size_t usedBefore_;
};

/// Adds a range of lost serials to those kept. The oldest are forgotten in the end.
void remember(LostRing& ring, const LostRange& range) noexcept;

}  // namespace instrument::detail
