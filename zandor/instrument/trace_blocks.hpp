// The blocks of records that a trace file has, and how to read one.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "recorder_snapshot.hpp"
#include "trace_names.hpp"
#include "trace_process.hpp"
#include "trace_reader.hpp"
#include "zandor/instrument/line_samples.hpp"

namespace instrument::detail {

/// The stop of an event that started in a block and did not stop there, or not by its own thread.
struct LateStop {
    std::uint32_t event;  ///< which start of the block
    std::uint32_t source;
    std::int64_t time;
};

/// A block of records, and what a survey found in it. Times of the first and last are out of order
/// while there is none.
struct RecordBlock {
    static constexpr std::uint32_t severalSources = 0xffffffff;
    static constexpr std::int64_t never = std::numeric_limits<std::int64_t>::max();

    TraceIndexEntry entry;
    TraceStretch stretch;
    bool isReadable = true;
    bool wasRead = false;
    bool wasAdapted = false;
    std::uint32_t events = 0;
    std::uint32_t open = 0;  ///< of these, how many no stop was found for
    std::int64_t firstStart = never;
    std::int64_t lastEnd = -never;
    std::uint32_t source = 0;  ///< of all events; or severalSources
    std::int64_t firstPoint = never;
    std::int64_t lastPoint = -never;
    std::uint64_t order = 0;               ///< of its first record among all of the process
    std::vector<LateStop> lateStops = {};  ///< by event once the survey is done

    void forgetEvents() {
        RecordBlock fresh{.entry = entry, .stretch = stretch};
        fresh.isReadable = isReadable;
        fresh.wasRead = wasRead;
        fresh.wasAdapted = wasAdapted;
        *this = std::move(fresh);
    }
};

/// A trace file, with the names of all its processes in memory. What it holds is not trusted; what
/// of it cannot be read is counted.
class ZANDOR_INSTRUMENT_API TraceBlocks {
  public:
    /// Told the bytes that were read since the last time.
    using Progress = std::function<void(std::uint64_t bytes)>;

    /// Throws as TraceReader does.
    TraceBlocks(const std::filesystem::path& file, Progress progress);

    std::span<const std::unique_ptr<LoadedProcess>> processes() const noexcept {
        return processes_;
    }
    /// By process and track, those of a track in their order.
    std::span<RecordBlock> records() noexcept { return records_; }
    std::span<RecordBlock> recordsOf(std::size_t process) noexcept;
    const TraceNames& names() const noexcept { return names_; }

    /// The records of a block, adapted, until the next call; empty when it cannot be read.
    std::optional<Stretch> load(RecordBlock& block);
    /// The same as the file has them, but whole.
    std::optional<std::span<Word>> loadAsTheyAre(RecordBlock& block);

    /// Samples of lines, of all processes, with times as those of the records.
    LineSamples lineSamples();

    /// Calls `visit(std::size_t process, std::span<const Word> untrusted)` with each outline.
    template <class Visit>
    void forEachOutline(Visit visit);

    /// The time of a block's first event, as far as a look at its beginning tells; not checked.
    std::optional<std::int64_t> beginOf(const RecordBlock& block);

    bool hasIndex() const noexcept { return reader_.hasIndex(); }
    std::uint64_t damaged() const noexcept { return damaged_; }
    /// Of all records.
    std::uint64_t recordBytes() const noexcept { return recordBytes_; }

  private:
    void readProcesses();
    void readNames();
    void findRecords();
    void readLost();

    TraceReader reader_;
    Progress progress_;
    TraceNames names_;
    std::vector<std::unique_ptr<LoadedProcess>> processes_;
    std::vector<RecordBlock> records_;
    std::vector<std::uint64_t> words_;
    std::uint64_t damaged_ = 0;
    std::uint64_t recordBytes_ = 0;
};

template <class Visit>
void TraceBlocks::forEachOutline(Visit visit) {
    for (const TraceIndexEntry& entry : reader_.blocks()) {
        if (entry.kind != TraceBlock::outline || entry.process >= processes_.size())
            continue;
        if (const auto payload = reader_.payload(entry))
            visit(entry.process, std::span<const Word>(*payload));
        else
            ++damaged_;
    }
}

}  // namespace instrument::detail
