#include "zandor/instrument/recorder.hpp"

#include "event_context_access.hpp"
#include "listener_class.hpp"
#include "recorder_core.hpp"
#include "recorder_hot.hpp"
#include "source_info.hpp"

namespace instrument {
namespace {

using detail::EventContextAccess;
using detail::putBegin;
using detail::RecorderCore;
using detail::RecordKind;

/// Of the thread that delivers the event; null where it has none yet.
detail::Track* trackOf(const RecorderCore& core, const EventContext& context) noexcept {
    return core.knownTrack(context.slots());
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

template <RecordKind kind>
[[gnu::always_inline]] inline void putOrRecord(RecorderCore& core, const Opaque* instrument,
                                               const EventContext& context, EventId id) noexcept {
    const std::uint64_t ticks = EventContextAccess::ticks(context);
    detail::Track* const track = trackOf(core, context);
    if (!track || !context.empty() || !putBegin<kind>(*track, instrument, {}, id, ticks))
        [[unlikely]]
        record(core, kind, instrument, context, id);
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

namespace detail {

constinit std::atomic<const void*> recorderTable{nullptr};

}  // namespace detail

InstrumentRecorder::InstrumentRecorder() : InstrumentRecorder(RecorderLimits()) {}

InstrumentRecorder::InstrumentRecorder(const RecorderLimits& limits)
    : core_(new RecorderCore(limits)) {
    // Here the object is of this class still, whatever derives from it.
    detail::recorderTable.store(detail::tableOf(*this), std::memory_order_relaxed);
}

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
    putOrRecord<RecordKind::start>(*core_, instrument, context, id);
}

void InstrumentRecorder::onStop(const Opaque* instrument, const EventContext& context,
                                EventId id) noexcept {
    const std::uint64_t ticks = EventContextAccess::ticks(context);
    const bool hasContext = !context.empty();
    const bool isKept = !hasContext || context.argsAreKept();
    detail::Track* const track = trackOf(*core_, context);
    if (!track || !isKept || context.sourceId() != id.sourceId ||
        !putStop(*track, instrument, hasContext, id, ticks)) [[unlikely]]
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
