// A thread that looks, about a thousand times a second, at what line each thread of the interpreter
// is in.
//
//   sampler thread -> interpreter's memory, by copies that cannot fault
//        |
//   sums by thread and line -> LineStream -> a file of the run folder, or memory
//
// It never takes the interpreter's lock and sends no signal: the program's threads go on as if it
// were not there, and it sees who has the lock. What it reads may change under it, so nothing of
// that is followed without being looked at; what does not fit is counted as misread.
#pragma once

#include <condition_variable>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <unordered_map>
#include <vector>

#include "code_table.hpp"
#include "sampled_thread.hpp"
#include "source_texts.hpp"
#include "stream_file.hpp"
#include "zandor/instrument/line_samples.hpp"

namespace vantrace {

/// Throws std::system_error where the system does not let a process read its own memory by a call.
void checkMemoryIsReadable();

/// Runs from construction until stop. Nobody else uses what belongs to its thread meanwhile.
class Sampler {
  public:
    /// Of the calling thread's interpreter, with its lock held. Without a folder the stream stays
    /// in memory. Throws std::system_error where memory cannot be read or there is no thread to be
    /// had.
    Sampler(Selection selection, const std::optional<std::filesystem::path>& folder);
    Sampler(const Sampler&) = delete;
    Sampler& operator=(const Sampler&) = delete;

    /// Ends it, with or without the interpreter's lock. Nothing in a child after fork.
    void stop();

    /// False in a child after fork: what is left there, without its thread, can only be let be.
    bool isOurs() const noexcept;

    // After stop.
    /// Empty where it is in a file.
    std::span<const std::byte> stream() const noexcept { return stream_.bytes(); }
    std::optional<std::filesystem::path> file() const;
    /// Whether there was room for all.
    bool isWhole() const noexcept { return isWhole_; }

  private:
    using Key = std::uint64_t;

    void run() noexcept;
    bool waitForTick();
    void lookAtThreads();
    void lookAt(const PyThreadState* address, const PyThreadState& copy, bool isHolder);
    SampledThread* threadOf(const PyThreadState* address, const PyThreadState& copy);
    std::optional<std::uint32_t> lineOf(const PyThreadState& copy);
    std::uint32_t numberOf(const Place& place);
    void addTime(const instrument::LineTime& time);
    void endPeriod();
    void forgetGoneThreads();

    const PyInterpreterState* const interpreter_;
    const PyThreadState* const starter_;
    const pid_t startersThread_;
    const pid_t process_;
    std::optional<StreamFile> file_;
    CodeTable codes_;
    SourceTexts texts_;
    instrument::LineStream stream_;
    std::unordered_map<std::uint64_t, SampledThread> threads_;  ///< by the interpreter's ids
    std::unordered_map<Key, std::uint32_t> linesOfPlaces_;
    std::unordered_map<std::string, std::uint32_t> lines_;
    std::unordered_map<Key, instrument::LineTime> times_;  ///< of the present period
    instrument::LinePeriod period_;
    std::int64_t begin_;
    std::int64_t latest_;
    std::int64_t elapsed_ = 0;  ///< from the tick before
    std::uint64_t tick_ = 0;
    std::uint32_t irregular_ = 0x9e3779b9;
    bool isWhole_ = true;

    std::mutex mutex_;
    std::condition_variable stopping_;
    bool isStopping_ = false;
    std::thread thread_;
};

}  // namespace vantrace
