// The listeners of an array as their short ways need them.
#pragma once

#include <array>
#include <cstddef>

#include "zandor/instrument/short_way.hpp"

namespace instrument::detail {

class RecorderCore;

struct ShortCall {
    ShortOperations::Operation tell;  ///< null: none
    void* self;
    InstrumentListener* listener;
    bool ignoresContext;
};

/// All-zero is none. A recorder comes first, whenever it was registered: none of those that have a
/// short way can tell.
struct ShortListeners {
    static constexpr std::size_t most = 3;
    /// Those that do anything about an edge, in order of registration; one that is none ends them.
    using Calls = std::array<ShortCall, most + 1>;

    const RecorderCore* recorder;
    bool needsTicks;
    bool needsTime;
    Calls instants;
    Calls starts;
    Calls stops;
};

}  // namespace instrument::detail
