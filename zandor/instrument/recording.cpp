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

RecordingFacts factsOf(const SnapshotFacts& snapshot) {
    RecordingFacts facts;
    facts.drops = snapshot.drops;
    facts.externalAccounts = externalAccounts();
    facts.originMonotonic = beginOf(snapshot.origin);
    if (facts.originMonotonic != 0)
        facts.originUtc = facts.originMonotonic + snapshot.origin.utcOffset;
    facts.processId = static_cast<std::uint64_t>(getpid());
    return facts;
}

Recording takeRecording(const InstrumentRecorder& recorder, const Opaque* instrument) {
    RecordingSink sink;
    const SnapshotFacts snapshot = instrument ? readEventsOf(recorder.core(), instrument->id, sink)
                                              : readEvents(recorder.core(), sink);
    Recording recording = sink.take();
    RecordingFacts facts = factsOf(snapshot);
    facts.sources = std::move(recording.sources);
    facts.lastTime = recording.lastTime;
    static_cast<RecordingFacts&>(recording) = std::move(facts);
    return recording;
}

}  // namespace instrument::detail
