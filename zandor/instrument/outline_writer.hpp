// Roughly what the threads of a process did, for whoever opens its trace file: put together while
// the records are written.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <utility>
#include <vector>

#include "lod_lane.hpp"
#include "recorder_record.hpp"
#include "trace_format.hpp"
#include "zandor/instrument/export.hpp"

namespace instrument::detail {

/// Events stand in the row of how many others of their thread were open; what does not nest is left
/// out. Narrow neighbours are merged, in ever wider cells, so that memory is of fixed size. Times
/// are as the records have them.
class ZANDOR_INSTRUMENT_API OutlineWriter {
  public:
    static constexpr std::uint32_t mostRows = 64;  ///< deeper events are left out
    static constexpr std::size_t mostOpen = 4096;  ///< as are more events at once
    static constexpr std::size_t mostSlices = 30'000;
    static constexpr std::uint64_t leastEvents = 1'000'000;  ///< fewer are soon read

    /// The records of a stretch: whole ones, those of a track one after the other.
    void add(const TraceStretch& stretch, std::span<const Word> records);
    /// What an outline block has; nothing of fewer events than `least`. Begins anew.
    std::vector<Word> take(std::uint64_t least = leastEvents);

  private:
    /// Of one thread, by one kind of times.
    struct Rows {
        std::vector<LodLane> nested;
        LodLane instants;
    };

    /// One that is open.
    struct Open {
        LodEvent event;
        bool timed = false;
    };
    using Key = std::pair<std::uint64_t, bool>;  // source, timed

    Rows& rowsOf(Key key);
    void addRecord(const Record& record);
    void begin(const Record& start);
    void addInstant(const Record& instant);
    void finish(const Record& stop);
    void put(LodLane& lane, const LodEvent& event);
    void putNested(Key key, std::size_t place, const LodEvent& event);
    void endRun();
    void coarsen();

    std::map<Key, Rows> rows_;
    Key latestKey_{};
    Rows* latestRows_ = nullptr;
    std::vector<Open> open_;  // of the present run, by serial
    std::uint64_t source_ = 0;
    std::int64_t latest_ = 0;
    std::uint64_t track_ = 0;
    std::uint64_t events_ = 0;
    int shift_ = 14;  // narrower cells are not worth their memory
    std::size_t size_ = 0;
    std::size_t most_ = mostSlices;
};

}  // namespace instrument::detail
