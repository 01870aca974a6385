#include "zandor/instrument/trace_time.hpp"

namespace instrument::detail {

namespace {

constexpr std::int64_t originShown = 1000;
constexpr std::int64_t finestUtcStep = 250;
constexpr std::int64_t largestExact = std::int64_t{1} << 53;

/// The recording's origin; where another process sent earlier events, the first of them.
std::int64_t earliest(EventStream& stream) {
    std::int64_t time = stream.facts().originMonotonic;
    stream.rewind();
    if (const auto events = stream.nextEvents(); !events.empty())
        time = std::min(time, events.front().start);
    if (const auto points = stream.nextPoints(); !points.empty())
        time = std::min(time, points.front().time);
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

TraceTime::TraceTime(EventStream& stream, TimeSystem timeSystem)
    : origin_(earliest(stream)),
      originUtc_(saturatingSubtract(stream.facts().originUtc,
                                    saturatingSubtract(stream.facts().originMonotonic, origin_))) {
    if (timeSystem == TimeSystem::utc) {
        shift_ = saturatingSubtract(originUtc_, origin_);
        step_ = utcStep(originUtc_, utc(stream.facts().lastTime));
        lowest_ = INT64_MIN;
    } else {
        shift_ = saturatingSubtract(originShown, origin_);
        lowest_ = originShown;
    }
}

}  // namespace instrument::detail
