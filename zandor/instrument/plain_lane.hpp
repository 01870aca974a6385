// What a thread needs to tell the edges of events without context, found once for many.
#pragma once

#include <atomic>
#include <cstdint>

#include "clock_source.hpp"
#include "zandor/instrument/short_way.hpp"

namespace instrument::detail {

struct Track;

/// Another number whenever anything that lanes hold may have changed: listeners, their data, the
/// clock.
extern constinit std::atomic<std::uint64_t> lanesVersion;

/// To be called after the change and before the heavy fence of those who wait for threads inside
/// listeners: a thread that is not seen inside then finds its lane outdated.
inline void outdateLanes() noexcept {
    // Release pairs with the acquire of those who make a lane: they find what was changed before.
    lanesVersion.fetch_add(1, std::memory_order_release);
}

/// To a recorder and at most one listener beside it. All-zero is none.
struct PlainLane {
    std::uint64_t version;
    const void* mark;  ///< of the listeners' array
    Track* track;
    // Of the listener beside the recorder; null where there is none.
    const PlainOperations* others;
    InstrumentListener* listener;
    void* data;  ///< what it keeps for the thread
    TickReader timeOf;
};

}  // namespace instrument::detail
