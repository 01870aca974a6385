// Samples of where inside functions time went: for code whose time goes into calls that no event
// shows. A sampler looks now and then at what line each thread is in, and sums up by period.
//
//   instrument::LineStream stream;                    // the sampler's side
//   const auto thread = stream.addThread(tid, "worker");
//   const auto line = stream.addLine({"solve.py", "solve", 12, "return numpy.dot(a, b)"});
//   stream.addPeriod({begin, end, ticks, 0}, {{thread, line, self, cpu, held}});
//
//   LineSamples samples;                              // the reader's
//   addLineSamples(stream.bytes(), {}, samples);
//
// A stream is bytes that are only appended to: what of it was written whole can be read. One behind
// the other, streams are a stream.
// docs/vtrace.md tells its layout. Nothing here is safe for several threads at once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "zandor/instrument/export.hpp"

namespace instrument {

/// A line of source, as its function runs it.
struct SourceLine {
    std::string file;
    std::string function;
    std::uint32_t number = 0;
    std::string text;  ///< of the line, as far as the file could be read; without its indentation

    bool operator==(const SourceLine&) const = default;
    bool operator<(const SourceLine& other) const {
        return std::tie(file, function, number, text) <
               std::tie(other.file, other.function, other.number, other.text);
    }
};

/// What a thread spent on a line, or on all, in some period; nanoseconds.
struct LineTime {
    static constexpr std::uint32_t allLines = 0xffffffff;

    std::uint32_t thread = 0;
    std::uint32_t line = allLines;
    std::int64_t self = 0;  ///< that passed in it
    std::int64_t cpu = 0;   ///< of CPU time
    std::int64_t held = 0;  ///< that passed while the thread had the interpreter's lock
};

/// When the sampler looked.
struct LinePeriod {
    std::int64_t begin = 0;  ///< nanoseconds of the monotonic clock
    std::int64_t end = 0;
    std::uint64_t ticks = 0;    ///< how often it looked
    std::uint64_t misread = 0;  ///< threads that went on meanwhile, so that no line fitted
};

/// Writes a stream.
class ZANDOR_INSTRUMENT_API LineStream {
  public:
    LineStream();

    // They give the number that times have for it, counted from 0.
    std::uint32_t addThread(std::uint64_t threadId, std::string_view name);
    std::uint32_t addLine(const SourceLine& line);
    void addPeriod(const LinePeriod& period, std::span<const LineTime> times);

    std::span<const std::byte> bytes() const noexcept { return bytes_; }
    /// Forgets the bytes, which were put elsewhere; the numbers go on.
    void forget() noexcept { bytes_.clear(); }

  private:
    void begin(std::uint64_t kind, std::size_t bytes);
    void put(const void* data, std::size_t size);
    void fill();

    std::vector<std::byte> bytes_;
    std::uint32_t threads_ = 0;
    std::uint32_t lines_ = 0;
};

/// What one or more streams tell.
struct LineSamples {
    struct Thread {
        std::uint32_t process = 0;  ///< which of the trace's, from 0
        std::uint64_t id = 0;       ///< the system's
        std::string name;
    };
    struct Time : LineTime {
        std::uint32_t period = 0;
    };

    std::vector<Thread> threads;
    std::vector<SourceLine> lines;  ///< each distinct one once
    std::vector<LinePeriod> periods;
    std::vector<Time> times;
};

/// Where a stream came from.
struct LineOrigin {
    std::uint32_t process = 0;
    std::int64_t timeShift = 0;  ///< added to all times
};

/// Adds what a stream tells. What it holds is not trusted: entries that make no sense are left out.
ZANDOR_INSTRUMENT_API void addLineSamples(std::span<const std::byte> stream,
                                          const LineOrigin& origin, LineSamples& samples);

}  // namespace instrument
