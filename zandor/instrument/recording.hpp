// A recording as exports and queries see it: what a recorder held at one moment, decoded.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "context_arena.hpp"
#include "zandor/instrument/event_id.hpp"
#include "zandor/instrument/external_accounts.hpp"
#include "zandor/instrument/instrument.hpp"
#include "zandor/instrument/recorder.hpp"

namespace instrument::detail {

/// A source that has events in the recording. Texts live as long as the process.
struct RecordedSource {
    std::uint64_t id = 0;
    std::string_view name;
    std::optional<std::string_view> processName;  ///< of another process, perhaps empty
    std::uint64_t processId = 0;                  ///< the system's own ids
    std::uint64_t threadId = 0;
};

/// A start, with its first stop where there is one.
struct RecordedEvent {
    std::int64_t start = 0;  ///< nanoseconds of the monotonic clock
    std::int64_t stop = 0;   ///< of an unfinished event: its start
    std::uint64_t serial = 0;
    const Opaque* instrument = nullptr;
    std::uint32_t source = 0;      ///< index into Recording::sources
    std::uint32_t stopSource = 0;  ///< where the stop came from
    ContextArgs context;           ///< names distinct, sorted
    bool finished = false;

    bool stopsElsewhere() const noexcept { return finished && stopSource != source; }
};

/// An instant; a second stop or a stop of an unknown event, which exports show as instants, too.
struct RecordedPoint {
    std::int64_t time = 0;
    std::uint64_t serial = 0;
    const Opaque* instrument = nullptr;
    std::uint32_t source = 0;
    ContextArgs context;  ///< names distinct, sorted
    EventPointType type = EventPointType::instant;
};

/// A recording but for its events.
struct RecordingFacts {
    std::vector<RecordedSource> sources;  ///< by id
    RecorderDrops drops;
    std::vector<ExternalAccount> externalAccounts;
    std::int64_t originMonotonic = 0;  ///< first event after construction or clear; 0: none yet
    std::int64_t originUtc = 0;        ///< the same instant in nanoseconds since the epoch
    std::int64_t lastTime = 0;         ///< the latest time of all
    std::uint64_t processId = 0;
};

struct Recording : RecordingFacts {
    std::vector<RecordedEvent> events;       ///< by start, source, serial
    std::vector<RecordedPoint> strayPoints;  ///< by time, source, order in the source
    ContextArena contextArgs;                ///< of all of them
};

struct SnapshotFacts;
/// All but the sources and the latest time.
RecordingFacts factsOf(const SnapshotFacts& snapshot);

/// Takes a snapshot and decodes it. Of one instrument all is in it; of others what came along.
ZANDOR_INSTRUMENT_API Recording takeRecording(const InstrumentRecorder& recorder,
                                              const Opaque* instrument = nullptr);

}  // namespace instrument::detail
