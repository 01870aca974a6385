#include "zandor/instrument/trace_time.hpp"

namespace instrument::detail {

namespace {

constexpr std::int64_t originShown = 1000;
constexpr std::int64_t finestUtcStep = 250;
constexpr std::int64_t largestExact = std::int64_t{1} << 53;

/// The recording's origin; where another process sent earlier events, the first of them.
std::int64_t earliest(const Recording& recording) {
    std::int64_t time = recording.originMonotonic;
    if (!recording.events.empty())
        time = std::min(time, recording.events.front().start);
    if (!recording.strayPoints.empty())
        time = std::min(time, recording.strayPoints.front().time);
    return time;
}

/// Doubles hold n steps of 1/4, 1/2, 1, 2, ... microseconds exactly while n is at most 2^53.
std::int64_t utcStep(std::int64_t first, std::int64_t last) {
    std::int64_t step = finestUtcStep;
    while (last / step > largestExact || first / step < -largestExact)
        step *= 2;
    return step;
}

}  // namespace

TraceTime::TraceTime(const Recording& recording, TimeSystem timeSystem)
    : origin_(earliest(recording)),
      originUtc_(saturatingSubtract(recording.originUtc,
                                    saturatingSubtract(recording.originMonotonic, origin_))) {
    if (timeSystem == TimeSystem::utc) {
        shift_ = saturatingSubtract(originUtc_, origin_);
        step_ = utcStep(originUtc_, utc(recording.lastTime));
        lowest_ = INT64_MIN;
    } else {
        shift_ = saturatingSubtract(originShown, origin_);
        lowest_ = originShown;
    }
}

}  // namespace instrument::detail
