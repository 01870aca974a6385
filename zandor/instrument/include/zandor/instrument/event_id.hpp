// The identity of an event.
#pragma once

#include <cstdint>

#include "zandor/instrument/export.hpp"

namespace instrument {

/// Who produced an event (unique in the process, never reused) and its number there (from 1).
/// Source 0 is reserved for identities that no listener saw.
struct EventId {
    std::uint64_t sourceId = 0;
    std::uint64_t serialId = 0;
    bool operator==(const EventId&) const noexcept = default;
};

/// No listener was active when the event would have started.
inline constexpr EventId noListenerEventId{0, 1};
/// The instrument was disabled for the event's context.
inline constexpr EventId disabledEventId{0, 2};
/// The event was produced inside a listener, where events are counted but not delivered.
inline constexpr EventId suppressedEventId{0, 3};

enum class EventPointType : std::int32_t { start = 0, stop = 1, instant = 2 };
/// "start", "stop", "instant".
ZANDOR_INSTRUMENT_API const char* getName(EventPointType type) noexcept;

}  // namespace instrument
