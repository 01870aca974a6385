// Trace files, `.vtrace`: what processes recorded, in the form that every other export is made
// from.
//
//   instrument::InstrumentRecorder recorder({.folder = folder});   // in each process
//   ...
//   instrument::finishRunFolder(folder, "all.vtrace");             // in any, also when those died
//   const instrument::TraceFile trace("all.vtrace");
//   trace.saveTraceEventJson("all.json");
//
// A file is written block by block beside its place, and renamed when it is whole. Reading trusts
// nothing that it finds: of a damaged or truncated file it gives what is whole. docs/vtrace.md
// tells the layout.
//
// Functions throw std::system_error where a file cannot be read or written and std::runtime_error
// for a file that is no trace.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "zandor/instrument/export.hpp"
#include "zandor/instrument/exports.hpp"
#include "zandor/instrument/line_samples.hpp"
#include "zandor/instrument/recorder.hpp"

namespace instrument {

/// What the recorder holds now, as a trace of one process; with a stream of samples (LineStream) if
/// there is one.
ZANDOR_INSTRUMENT_API void saveTraceFile(const InstrumentRecorder& recorder,
                                         const std::filesystem::path& file,
                                         std::span<const std::byte> lines = {});

/// Puts what processes recorded in a folder (RecorderLimits::folder) into one file, each as its own
/// process, those with the earlier first event before the others. They may have ended in any way,
/// or still run. Streams of samples in it, `PROCESS-TIME.lines`, join the process of that id. The
/// folder stays as it is. Gives the number of processes.
ZANDOR_INSTRUMENT_API std::uint32_t finishRunFolder(const std::filesystem::path& folder,
                                                    const std::filesystem::path& file);

/// What of a trace to look at.
struct TraceSelection {
    // Nanoseconds from the trace's first event. Events that overlap the time stay whole.
    std::optional<std::int64_t> since = {};
    std::optional<std::int64_t> until = {};
    /// Shorter events go; with any but a negative one instants, too.
    std::int64_t minimumDuration = -1;
    /// Of each thread, the longest so many events; 0: all.
    std::size_t mostPerThread = 0;
    bool contexts = true;
};

/// Told, now and then while a trace file is read, the bytes of records that were read of it so far;
/// each export reads it once or more. What it throws ends the export and passes through.
using TraceProgress = std::function<void(std::uint64_t bytesRead)>;

/// Joins trace files by their clocks. Throws std::runtime_error for a damaged one.
ZANDOR_INSTRUMENT_API void combineTraceFiles(const std::vector<std::filesystem::path>& files,
                                             const std::filesystem::path& file,
                                             const TraceProgress& progress = {});

/// Calls from one stack: of an event inside those that its parents stand for.
struct TraceStack {
    static constexpr std::uint32_t noParent = 0xffffffff;

    std::uint32_t parent = noParent;
    std::string name;
    std::int64_t calls = 0;
    std::int64_t self = 0;  ///< nanoseconds
};

/// A trace file, read as it is needed. In memory are its names, a block of records of each thread
/// that was active at once, a bit an event, and some 30 bytes for each event that began in one
/// block and ended in another, or on another thread. For one thread at a time.
class ZANDOR_INSTRUMENT_API TraceFile {
  public:
    explicit TraceFile(const std::filesystem::path& file, TraceProgress progress = {});
    ~TraceFile();
    TraceFile(const TraceFile&) = delete;
    TraceFile& operator=(const TraceFile&) = delete;

    /// Leaves out what is not selected, until something else is.
    void select(const TraceSelection& selection);

    // With a name that ends in ".gz" it is compressed.
    void saveTraceEventJson(const std::filesystem::path& file) const;
    /// In files of at most `mostBytes` each (before they are compressed), in order of time:
    /// "name.json", "name-2.json", ... Each is valid by itself. An event alone may be larger. Gives
    /// their names.
    std::vector<std::filesystem::path> saveTraceEventJson(const std::filesystem::path& file,
                                                          std::uint64_t mostBytes) const;
    /// The root frame of a stack is the thread; where there are several processes, "process
    /// id/thread".
    void saveCollapsedStacks(const std::filesystem::path& file) const;
    /// One evented profile a thread.
    void saveSpeedscope(const std::filesystem::path& file) const;

    std::vector<EventSummary> summarize() const;
    /// Who called whom. A stack stands behind the one that it was called from; the first are the
    /// threads.
    std::vector<TraceStack> stacks() const;
    /// What `vantrace report` shows, as JSON: summed up by time, so that its size is bounded.
    std::string reportData() const;
    /// Samples of lines, with periods in nanoseconds since the trace's first event and the names
    /// that the recording has for threads.
    LineSamples lineSamples() const;
    RecorderDrops drops() const noexcept;
    /// Nanoseconds from the first event to the latest time of all.
    std::int64_t duration() const noexcept;
    std::uint32_t processCount() const noexcept;
    /// Of each thread that has complete events, sorted; two threads may have the same name.
    std::vector<std::string> threadNames() const;
    std::uint64_t eventCount() const;
    /// Of all records; what `progress` is told grows by it each time that all are read.
    std::uint64_t bytesOfRecords() const noexcept;
    /// Blocks that could not be read, whole or in part.
    std::uint64_t damagedBlocks() const noexcept;
    /// Whether its writer came to the end.
    bool isComplete() const noexcept;

  private:
    struct Stream;
    std::unique_ptr<Stream> stream_;
};

}  // namespace instrument
