// Time: raw ticks on the hot path, nanoseconds of the monotonic clock when read.
//
// Where the kernel itself keeps time by the processor's time-stamp counter, ticks are that
// counter's, and a reading is converted by interpolation between pairs of (counter, monotonic
// clock). Elsewhere ticks are nanoseconds of the monotonic clock already. A conversion first takes
// a pair when its ticks lie beyond the last one, so a tick's time never changes. From any thread.
#pragma once

#include <cstdint>

#include "zandor/instrument/export.hpp"

namespace instrument::clock {

/// The raw clock now.
ZANDOR_INSTRUMENT_API std::uint64_t ticks() noexcept;
/// Nanoseconds of the monotonic clock at `ticks`; monotone in its argument.
ZANDOR_INSTRUMENT_API std::int64_t toNanoseconds(std::uint64_t ticks);
/// Nanoseconds of the monotonic clock now.
ZANDOR_INSTRUMENT_API std::int64_t now() noexcept;
/// Nanoseconds since the epoch (UTC) now.
ZANDOR_INSTRUMENT_API std::int64_t utcNow() noexcept;
/// "tsc" or "monotonic".
ZANDOR_INSTRUMENT_API const char* name() noexcept;

}  // namespace instrument::clock
