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

constexpr std::size_t plainWords = detail::wordsOf(RecordKind::start);
static_assert(plainWords == detail::wordsOf(RecordKind::stop));

// The frequent cases, each in one piece: the next event of the thread's own source, its context
// none or kept, and the stop of one. They tell whether they did it; the rest goes the general way.

/// The calling thread's track, if it is in this source.
[[gnu::always_inline]] inline Track* trackOf(const RecorderCore& core,
                                             const EventContext& context) noexcept {
    const detail::ThreadState* thread = detail::ThreadState::find();
    Track* track = thread ? core.knownTrack(*thread) : nullptr;
    return track && track->stream.info == context.source() ? track : nullptr;
}

/// Whether so many words have room behind the tail, which is this thread's own.
[[gnu::always_inline]] inline bool hasRoom(const Track& track, std::size_t words) noexcept {
    const Word* const tail = track.tail.load(std::memory_order_relaxed);
    return track.limit - tail >= static_cast<std::ptrdiff_t>(words);
}

/// Pairs with the acquire of readers: with the tail come the records before it.
[[gnu::always_inline]] inline void commit(Track& track, Word* end) noexcept {
    track.tail.store(end, std::memory_order_release);
}

[[gnu::always_inline]] inline bool putStart(const RecorderCore& core, const Opaque* instrument,
                                            const EventContext& context, EventId id) noexcept {
    const ContextArgs args = context.args();
    if (!(args.empty() ? context.empty() : context.argsAreKept()))
        return false;
    Track* const track = trackOf(core, context);
    if (!track || id.serialId != track->stream.nextSerial ||
        !hasRoom(*track, plainWords + detail::mostWords(args))) [[unlikely]]
        return false;
    Word* const head = track->tail.load(std::memory_order_relaxed);
    Word* const entries = head + plainWords;
    Word* const end = args.empty() ? entries : detail::encodeInterned(args, entries);
    const auto words = static_cast<std::size_t>(end - entries);
    if (words >= RecordHead::contextIsCounted) [[unlikely]]
        return false;
    head[0] = RecordHead(RecordKind::start, false, words, instrument->id, 0).word();
    head[1] = EventContextAccess::ticks(context);
    ++track->stream.nextSerial;
    ++track->open;
    commit(*track, end);
    return true;
}

[[gnu::always_inline]] inline bool putStop(const RecorderCore& core, const Opaque* instrument,
                                           const EventContext& context, EventId id) noexcept {
    const bool hasContext = !context.empty();
    if (hasContext && !context.argsAreKept())
        return false;
    Track* const track = trackOf(core, context);
    if (!track || id.sourceId != track->stream.source || id.serialId < track->runFirst ||
        track->hasLost || !hasRoom(*track, plainWords)) [[unlikely]]
        return false;
    const std::uint64_t back = track->stream.nextSerial - id.serialId;
    if (back - 1 >= RecordHead::serialLimit - 1) [[unlikely]]
        return false;
    Word* const head = track->tail.load(std::memory_order_relaxed);
    head[0] = RecordHead(RecordKind::stop, false, hasContext ? RecordHead::contextOfStart : 0,
                         instrument->id, back)
                  .word();
    head[1] = EventContextAccess::ticks(context);
    --track->open;
    commit(*track, head + plainWords);
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
    if (!putStart(*core_, instrument, context, id)) [[unlikely]]
        record(*core_, RecordKind::start, instrument, context, id);
}

void InstrumentRecorder::onStop(const Opaque* instrument, const EventContext& context,
                                EventId id) noexcept {
    if (!putStop(*core_, instrument, context, id)) [[unlikely]]
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
