#include "recording.hpp"

#include <unistd.h>

#include <algorithm>

#include "name_index.hpp"
#include "recorder_core.hpp"
#include "recorder_matching.hpp"
#include "recording_sink.hpp"
#include "zandor/instrument/clock.hpp"

namespace instrument::detail {
namespace {

std::int64_t beginOf(const Origin& origin) {
    if (origin.ticks == 0)
        return origin.nanoseconds;
    const std::int64_t begin = clock::toNanoseconds(origin.ticks);
    return origin.nanoseconds == 0 ? begin : std::min(begin, origin.nanoseconds);
}

}  // namespace

Recording takeRecording(const InstrumentRecorder& recorder, const Opaque* instrument) {
    RecordingSink sink;
    const SnapshotFacts facts = instrument ? readEventsOf(recorder.core(), instrument->id, sink)
                                           : readEvents(recorder.core(), sink);
    Recording recording = sink.take();
    recording.drops = facts.drops;
    recording.externalAccounts = externalAccounts();
    recording.originMonotonic = beginOf(facts.origin);
    if (recording.originMonotonic != 0)
        recording.originUtc = recording.originMonotonic + facts.origin.utcOffset;
    recording.processId = static_cast<std::uint64_t>(getpid());
    return recording;
}

}  // namespace instrument::detail
