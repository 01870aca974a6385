// What a thread needs to tell the edges of its own events in as few steps as there can be, found
// once for many.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "clock_source.hpp"
#include "zandor/instrument/listeners.hpp"
#include "zandor/instrument/short_way.hpp"

namespace instrument::detail {

struct Track;

/// To be called when anything that lanes hold has changed: listeners, their data, the clock; before
/// the heavy fence of those who wait for threads inside listeners: a thread that is not seen inside
/// then finds its lane outdated.
inline void outdateLanes() noexcept {
    // Release pairs with the acquire of those who make a lane: they find what was changed before.
    listeners.version.fetch_add(1, std::memory_order_release);
}

/// What each edge looks at. All-zero is no lane.
struct LaneHead {
    std::uint64_t version;  ///< as of the listeners, when it was made
    Track* track;           ///< of the recorder; null where there is none
    bool needsTicks;
    bool needsTime;
    bool hasListeners;  ///< beside the recorder
    bool hasCounts;
    // Whether listeners are to be called of edges without context.
    bool tellsStarts;
    bool tellsStops;
    bool tellsInstants;
    bool tellsOne;  ///< at most, of each kind
};

struct LaneCall {
    ShortOperations::Operation tell;  ///< null: none
    void* data;                       ///< what the listener keeps for the thread
    InstrumentListener* listener;
    bool ignoresContext;
};

/// Those that do anything about an edge, in order of registration; one that is none ends them.
struct LaneCalls {
    static constexpr std::size_t most = 3;

    std::array<LaneCall, most + 1> starts;
    std::array<LaneCall, most + 1> stops;
    std::array<LaneCall, most + 1> instants;
};

/// An edge without context, while listeners are told of it.
struct LaneEdge {
    const Opaque* handle;
    std::uint64_t serial;
    std::uint64_t ticks;
};

/// The listeners beside the recorder, which comes first, whenever it was registered: none of those
/// that have a short way can tell.
struct LaneListeners {
    /// Of edges without context; null where nobody counts.
    ShortCount* counts;
    InstrumentListener* counter;
    LaneEdge edge;
    TickReader timeOf;
    LaneCalls ofPlain;  ///< but for the counter, where there are counts
    LaneCalls ofAny;
};

}  // namespace instrument::detail
