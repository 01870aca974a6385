// What a recorder holds, as Python objects.
#pragma once

#include "python_api.hpp"
#include "zandor/instrument/recorder.hpp"

namespace vantrace {

/// A list of (name, kind, start, duration, thread, context), by start: times in nanoseconds, the
/// context a dict. The kind is "event", "unfinished" (whose duration is None), "instant", "counter"
/// (whose context is its value) or "stop".
Ref listEvents(const instrument::InstrumentRecorder& recorder);

}  // namespace vantrace
