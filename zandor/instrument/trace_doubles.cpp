#include "zandor/instrument/trace_doubles.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>

namespace instrument::detail {

namespace {

/// What a reader makes of so many nanoseconds that are written as microseconds.
double parsed(std::int64_t nanoseconds) {
    char text[32];
    char* end = std::to_chars(text, text + sizeof text, nanoseconds).ptr;
    end = std::copy_n("e-3", 3, end);
    double value = 0;
    std::from_chars(text, end, value);
    return value;
}

double endOf(TraceSpan span, double origin) {
    return parsed(span.start) - origin + parsed(span.end - span.start);
}

/// Whether the span lasts, and ends before what it has to, for a viewer that counts from `origin`.
bool fits(TraceSpan span, std::optional<std::int64_t> meets, const TraceSpan* parent,
          double origin) {
    const double shown = endOf(span, origin);
    return shown > parsed(span.start) - origin && (!meets || shown < parsed(*meets) - origin) &&
           (!parent || shown < endOf(*parent, origin));
}

}  // namespace

TraceDoubles::TraceDoubles(std::size_t sources, std::int64_t latest)
    : firstStarts_(sources, std::numeric_limits<double>::quiet_NaN()),
      slack_(1 + 4 * (latest / careFrom)) {}

std::int64_t TraceDoubles::fittingEnd(std::uint32_t source, TraceSpan span,
                                      std::optional<std::int64_t> meets, const TraceSpan* parent) {
    double& first = firstStarts_[source];
    const double origin = std::isnan(first) ? parsed(span.start) : first;
    const std::int64_t latest = span.end;
    for (std::int64_t cut = 0; latest - cut > span.start; cut += 1 + cut / 4) {
        span.end = latest - cut;
        if (fits(span, meets, parent, 0) && fits(span, meets, parent, origin)) {
            first = origin;
            return span.end;
        }
    }
    return span.start;
}

}  // namespace instrument::detail
