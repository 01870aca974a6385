#include "zandor/instrument/recorder.hpp"

#include "event_context_access.hpp"
#include "recorder_core.hpp"
#include "source_info.hpp"

namespace instrument {
namespace {

using detail::EventContextAccess;
using detail::RecorderCore;
using detail::RecordHead;
using detail::RecordKind;
using detail::Track;
using detail::Word;

constexpr auto plainWords = static_cast<std::ptrdiff_t>(detail::wordsOf(RecordKind::start));
static_assert(plainWords == detail::wordsOf(RecordKind::stop));

// Inlined, since every event goes through them; what does not fit goes out of line.

/// The calling thread's track, if it is in this source and a plain record has room.
[[gnu::always_inline]] inline Track* trackForPlain(const RecorderCore& core,
                                                   const EventContext& context) noexcept {
    const detail::ThreadState* thread = detail::ThreadState::find();
    Track* track = thread ? core.knownTrack(*thread) : nullptr;
    if (!track || track->stream.info != context.source()) [[unlikely]]
        return nullptr;
    // Relaxed: this thread's own.
    return track->limit - track->tail.load(std::memory_order_relaxed) >= plainWords ? track
                                                                                    : nullptr;
}

[[gnu::always_inline]] inline void put(Track& track, RecordHead head,
                                       const EventContext& context) noexcept {
    Word* const tail = track.tail.load(std::memory_order_relaxed);
    tail[0] = head.word();
    tail[1] = EventContextAccess::ticks(context);
    // Pairs with the acquire of readers: with the tail come the records before it.
    track.tail.store(tail + plainWords, std::memory_order_release);
}

/// The frequent cases of the next event, without context, and of its stop; or false.
bool putPlainStart(const RecorderCore& core, const Opaque* instrument, const EventContext& context,
                   EventId id) noexcept {
    if (!context.empty())
        return false;
    Track* const track = trackForPlain(core, context);
    if (!track || id.serialId != track->stream.nextSerial) [[unlikely]]
        return false;
    ++track->stream.nextSerial;
    ++track->open;
    put(*track, {RecordKind::start, false, 0, instrument->id, 0}, context);
    return true;
}

bool putPlainStop(const RecorderCore& core, const Opaque* instrument, const EventContext& context,
                  EventId id) noexcept {
    const bool hasContext = !context.empty();
    if (hasContext && !context.argsAreKept())
        return false;
    Track* const track = trackForPlain(core, context);
    if (!track || id.sourceId != track->stream.source || id.serialId < track->runFirst) [[unlikely]]
        return false;
    const std::uint64_t back = track->stream.nextSerial - id.serialId;
    if (back - 1 >= RecordHead::serialLimit - 1) [[unlikely]]
        return false;
    --track->open;
    put(*track,
        {RecordKind::stop, false, hasContext ? RecordHead::contextOfStart : 0, instrument->id,
         back},
        context);
    return true;
}

[[gnu::noinline]] void record(RecorderCore& core, RecordKind kind, const Opaque* instrument,
                              const EventContext& context, EventId id) noexcept {
    const bool hasArgs = !context.args().empty();
    core.record({.kind = kind,
                 .timed = false,
                 .instrument = instrument->id,
                 .id = id,
                 .source = context.source(),
                 .time = EventContextAccess::ticks(context),
                 .context = {hasArgs || context.empty() ? nullptr : &context.set(), context.args(),
                             context.argsAreKept()},
                 .contextIsStarts = hasArgs && context.argsAreKept()});
}

void recordAt(RecorderCore& core, RecordKind kind, const Opaque* instrument,
              const EventContext& context, EventId id, std::int64_t time) noexcept {
    core.record({.kind = kind,
                 .timed = true,
                 .instrument = instrument->id,
                 .id = id,
                 .source = context.source(),
                 .time = static_cast<std::uint64_t>(time),
                 .context = {context.empty() ? nullptr : &context.set(), {}, false},
                 .contextIsStarts = false});
}

}  // namespace

InstrumentRecorder::InstrumentRecorder() : InstrumentRecorder(RecorderLimits()) {}

InstrumentRecorder::InstrumentRecorder(const RecorderLimits& limits)
    : core_(new RecorderCore(limits)) {}

InstrumentRecorder::~InstrumentRecorder() {
    listeners.remove(*this);
}

void InstrumentRecorder::CoreDeleter::operator()(RecorderCore* core) const noexcept {
    delete core;
}

void InstrumentRecorder::clearAllEventData() {
    core_->clear(*this);
}

RecorderDrops InstrumentRecorder::drops() const noexcept {
    return core_->drops();
}

std::size_t InstrumentRecorder::bytesInUse() const noexcept {
    return core_->bytesInUse();
}

std::size_t InstrumentRecorder::maxBytes() const noexcept {
    return core_->maxBytes();
}

void InstrumentRecorder::onInstant(const Opaque* instrument, const EventContext& context,
                                   EventId id) noexcept {
    record(*core_, RecordKind::instant, instrument, context, id);
}

void InstrumentRecorder::onStart(const Opaque* instrument, const EventContext& context,
                                 EventId id) noexcept {
    if (!putPlainStart(*core_, instrument, context, id)) [[unlikely]]
        record(*core_, RecordKind::start, instrument, context, id);
}

void InstrumentRecorder::onStop(const Opaque* instrument, const EventContext& context,
                                EventId id) noexcept {
    if (!putPlainStop(*core_, instrument, context, id)) [[unlikely]]
        record(*core_, RecordKind::stop, instrument, context, id);
}

void InstrumentRecorder::onInstantAt(const Opaque* instrument, const EventContext& context,
                                     EventId id, std::int64_t time) noexcept {
    recordAt(*core_, RecordKind::instant, instrument, context, id, time);
}

void InstrumentRecorder::onStartAt(const Opaque* instrument, const EventContext& context,
                                   EventId id, std::int64_t time) noexcept {
    recordAt(*core_, RecordKind::start, instrument, context, id, time);
}

void InstrumentRecorder::onStopAt(const Opaque* instrument, const EventContext& context, EventId id,
                                  std::int64_t time) noexcept {
    recordAt(*core_, RecordKind::stop, instrument, context, id, time);
}

}  // namespace instrument
