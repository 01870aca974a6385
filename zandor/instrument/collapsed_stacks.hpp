// A recording as collapsed stacks.
#pragma once

#include <string>
#include <vector>

#include "zandor/instrument/event_stream.hpp"
#include "zandor/instrument/export.hpp"

namespace instrument::detail {

/// "thread;outer;inner 1234", a line a distinct stack, sorted, without line ends. The self times of
/// a thread add up to the time that its events cover: an event that overlaps another belongs to the
/// one in which it started, an open one lasts until the last time of all, one that stops on another
/// thread counts where it started. A stack whose time went to the stacks above it has no line; one
/// that took no time at all has 1.
/// With what each source's root frame is called.
ZANDOR_INSTRUMENT_API std::vector<std::string> collapsedStacks(
    EventStream& stream, const std::vector<std::string>& roots);
/// With the threads' names.
ZANDOR_INSTRUMENT_API std::vector<std::string> collapsedStacks(const Recording& recording);

}  // namespace instrument::detail
