// Telling listeners by their class, without a call.
#pragma once

#include <atomic>
#include <cstring>

#include "zandor/instrument/recorder.hpp"

namespace instrument::detail {

/// Where the object's class keeps its operations.
inline const void* tableOf(const InstrumentListener& listener) noexcept {
    const void* table;
    std::memcpy(&table, static_cast<const void*>(&listener), sizeof table);
    return table;
}

/// That of InstrumentRecorder. Set before the first is made, relaxed: a recorder is seen later.
extern constinit std::atomic<const void*> recorderTable;

/// What is inside a recorder; null for other listeners, and where a class of its own derives from
/// it.
inline RecorderCore* recorderIn(InstrumentListener& listener) noexcept {
    if (tableOf(listener) != recorderTable.load(std::memory_order_relaxed))
        return nullptr;
    return &static_cast<InstrumentRecorder&>(listener).core();
}

}  // namespace instrument::detail
