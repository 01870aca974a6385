// What a report shows of a recording, as JSON: summed up in equal parts of its time, so that it
// does not grow with the events.
//
//   bins         count, width (nanoseconds)
//   duration, events, unfinished, instants, processes, originUtc (nanoseconds as text)
//   names        texts, which the rest names by their place; -1 stands for several
//   threads      process, name; moreThreads: how many the root behind them stands for
//   tree         [parent, name, bin, calls, self, ...] for each stack, each behind its parent; the
//                first are the threads, whose parent and name are -1
//   times        [name, [bin, calls, total, self, longest, ...], [bin * 256 + bucket, count, ...]]
//   buckets      where each bucket of durations begins, in nanoseconds
//   contexts     [name, key, [[value or null for others, bin, calls, total, ...], ...]]
//   counters     [name, key or null, [bin, count, lowest, highest, last, ...]]
#pragma once

#include "event_stream.hpp"
#include "zandor/instrument/exports.hpp"

namespace instrument::detail {

/// Numbers are nanoseconds where nothing else is said.
ZANDOR_INSTRUMENT_API void writeReportData(EventStream& stream, std::uint32_t processes,
                                           TextSink& sink);

}  // namespace instrument::detail
