#include "event_stream.hpp"

#include <utility>

namespace instrument::detail {

EventStream::~EventStream() = default;

void RecordingStream::rewind(std::optional<std::uint32_t>) {
    events_ = recording_.events;
    points_ = recording_.strayPoints;
}

std::span<const RecordedEvent> RecordingStream::nextEvents() {
    return std::exchange(events_, {});
}

std::span<const RecordedPoint> RecordingStream::nextPoints() {
    return std::exchange(points_, {});
}

}  // namespace instrument::detail
