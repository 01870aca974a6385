// A trace file as a timeline shows it: a window of time at once, with no more detail than a screen
// holds.
//
//   instrument::TraceView view("all.vtrace");       // reads where its blocks are
//   std::jthread reader([&] { view.read(); });      // reads all of it, once
//   view.window(begin, end, 1200, 0, 20);           // meanwhile and later
//
//   file -> outline                                            -> windows at first
//        -> blocks -> (one reading) -> pyramid of merged slices -> wide windows
//                  -> (as asked)    -> events of a few blocks   -> narrow windows
//
// Answers are JSON, of bounded size however long the recording is. Times are nanoseconds from the
// trace's first event, as numbers; threads, names and serials are numbers that other answers know.
// Memory does not grow with the number of events, but as that of TraceFile does.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "zandor/instrument/export.hpp"

namespace instrument {

/// All may be called from any thread at any time, but for what says otherwise.
class ZANDOR_INSTRUMENT_API TraceView {
  public:
    /// Throws std::system_error where the file cannot be read and std::runtime_error where it is no
    /// trace.
    explicit TraceView(const std::filesystem::path& file);
    ~TraceView();
    TraceView(const TraceView&) = delete;
    TraceView& operator=(const TraceView&) = delete;

    /// Reads the whole file, which may take long; once. Questions are answered in between. Throws
    /// what went wrong.
    void read();
    /// Has read() return soon, in whatever thread it runs or will run.
    void stop() noexcept;

    /// How far reading is, and what is known of the whole: {"phase": "first", "ordered" or "whole",
    /// "percent", "duration", "events", ..}. In the first phase windows are of the file's outline;
    /// so are those, in the second, that are too wide to be read at once.
    std::string state() const;
    /// When each thread wrote: [[process, thread, [time, ..]], ..], of no more than 200 threads and
    /// 2,000 times each. Known before anything is read.
    std::string activity() const;
    /// The threads with their rows: [[process, process id, name, thread id, rows of nested events,
    /// rows of events that do not nest, whether there are instants], ..], at most 10,000. In the
    /// first phase these are the threads of the outline, which have other numbers later.
    std::string threads();

    /// What threads `firstThread` to `lastThread` show of [begin, end) on so many pixels:
    /// {"begin", "end", "exact", "until", "rows": [[thread, kind, row, [slice, ..]], ..], "names":
    /// {..}}. Kinds are 0 nested, 1 beside, 2 instants. A slice is seven numbers: start, duration,
    /// name, events, marks, serial, nanoseconds inside events. Marks are 1 instant, 2 had not
    /// ended, 4 stops on another thread, 8 outlives what it began in. Not exact: rows are of merged
    /// slices, or of an outline, as far as that goes: to "until".
    std::string window(std::int64_t begin, std::int64_t end, std::uint32_t pixels,
                       std::uint32_t firstThread, std::uint32_t lastThread);
    /// The stacks of [begin, end), with times inside it: {"begin", "end", "threads": [[process,
    /// name], ..], "moreThreads", "tree": [[parent, name, 0, calls, self], ..], "names": [..]}.
    /// Of a wide window that is the next whole parts of time.
    std::string flame(std::int64_t begin, std::int64_t end);

    /// A place among all events; the serial tells apart what starts at once on a thread.
    struct Place {
        std::int64_t start = 0;
        std::int64_t duration = 0;
        std::uint32_t thread = 0;
        std::uint64_t serial = 0;
    };
    /// The next event, or the one before, whose name has the text in it (letters of either case):
    /// {"names", "events", "hit": [start, duration, name, thread, serial]}, the hit null where
    /// there is none. Null before all is read.
    std::string find(std::string_view text, const Place& from, bool isForward);
    /// An event's name, place in the source, thread and context; null where there is none.
    std::string details(const Place& place);

  private:
    class Parts;
    std::unique_ptr<Parts> parts_;
};

}  // namespace instrument
