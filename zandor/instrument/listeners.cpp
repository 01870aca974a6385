#include "zandor/instrument/listeners.hpp"

#include "control_registry.hpp"
#include "delivery.hpp"
#include "set_edges.hpp"
#include "unloading.hpp"
#include "zandor/instrument/instrument.hpp"

namespace instrument {

using namespace detail;

namespace {

EventContext makeContext(ThreadState& thread, const ThreadSource& source,
                         const ContextSet& context) noexcept {
    return EventContextAccess::ofSet(thread, source, context);
}

EventContext makeContext(ThreadState& thread, const ThreadSource& source,
                         ContextArgs context) noexcept {
    return EventContextAccess::ofArgs(thread, source, context, false);
}

/// Delivers an edge that takes a new identity.
template <auto operation, class Context>
EventId deliverNew(const Opaque* handle, const Context& given, std::optional<std::uint64_t> tag) {
    const Inside inside;
    ThreadSource* source = inside ? inside.state().sourceFor(tag) : nullptr;
    if (!source) {
        countSuppressed();
        return suppressedEventId;
    }
    const EventContext context = makeContext(inside.state(), *source, given);
    const EventId id{source->id, ++source->serial};
    callListeners<operation>(inside.state(), handle, context, id);
    return id;
}

template <class Context>
void deliverStop(const Opaque* handle, const Context& given, EventId id,
                 std::optional<std::uint64_t> tag) {
    const Inside inside;
    const ThreadSource* source = inside ? inside.state().sourceFor(tag) : nullptr;
    if (!source)
        return countSuppressed();
    const EventContext context = makeContext(inside.state(), *source, given);
    callListeners<&InstrumentListener::onStop>(inside.state(), handle, context, id);
}

template <auto operation>
void deliverAt(const Opaque* handle, const ContextSet& given, EventId id, std::int64_t time) {
    const Inside inside;
    const SourcePtr source = inside ? externalSource(id.sourceId) : SourcePtr();
    if (!source)
        return countSuppressed();
    EventContext context = makeContext(inside.state(), {source.get(), id.sourceId, 0}, given);
    EventContextAccess::giveTime(context, time);
    callListeners<operation>(inside.state(), handle, context, id, time);
}

}  // namespace

constinit Listeners listeners;

InstrumentListener::InstrumentListener() noexcept = default;

InstrumentListener::~InstrumentListener() = default;

void Listeners::add(InstrumentListener& listener) {
    enterProcess();
    observeUnloading();
    const Locked locked(processState().listeners);
    if (!findRegistration(listener))
        registerListener(listener);
}

void Listeners::remove(InstrumentListener& listener) {
    {
        const Locked locked(processState().listeners);
        unregisterListener(listener);
    }
    // Even where it was not there: another thread may be inside since a removal that did not wait.
    if (!isInsideListener())
        drain(listener);
}

bool Listeners::has(const InstrumentListener& listener) const {
    const Locked locked(processState().listeners);
    return findRegistration(listener) != nullptr;
}

void Listeners::drain(const InstrumentListener& listener) const {
    waitUntilNobodyIsInside(listener);
}

std::uint64_t Listeners::suppressedEvents() const noexcept {
    return processState().suppressedEvents.load(std::memory_order_relaxed);
}

EventId Listeners::onEventStart(const Opaque* handle, ContextSet&& context,
                                std::optional<std::uint64_t> tag) {
    const EventId id = tag ? EventId() : beginByLane<RecordKind::start>(handle, context);
    return id != EventId() ? id : deliverNew<&InstrumentListener::onStart>(handle, context, tag);
}

void Listeners::onEventStop(const Opaque* handle, ContextSet&& context, EventId id,
                            std::optional<std::uint64_t> tag) {
    if (tag || !stopByLane(handle, context, id))
        deliverStop(handle, context, id, tag);
}

void Listeners::onEventInstant(const Opaque* handle, ContextSet&& context,
                               std::optional<std::uint64_t> tag) {
    const EventId id = tag ? EventId() : beginByLane<RecordKind::instant>(handle, context);
    if (id == EventId())
        deliverNew<&InstrumentListener::onInstant>(handle, context, tag);
}

void Listeners::onEventStartAt(const Opaque* handle, ContextSet&& context, EventId id,
                               std::int64_t time) {
    deliverAt<&InstrumentListener::onStartAt>(handle, context, id, time);
}

void Listeners::onEventStopAt(const Opaque* handle, ContextSet&& context, EventId id,
                              std::int64_t time) {
    deliverAt<&InstrumentListener::onStopAt>(handle, context, id, time);
}

void Listeners::onEventInstantAt(const Opaque* handle, ContextSet&& context, EventId id,
                                 std::int64_t time) {
    deliverAt<&InstrumentListener::onInstantAt>(handle, context, id, time);
}

EventId Listeners::onEventStart(const Opaque* handle, ContextArgs context) {
    return deliverNew<&InstrumentListener::onStart>(handle, context, std::nullopt);
}

void Listeners::onEventStop(const Opaque* handle, ContextArgs context, EventId id) {
    deliverStop(handle, context, id, std::nullopt);
}

EventId Listeners::onEventInstant(const Opaque* handle, ContextArgs context) {
    return deliverNew<&InstrumentListener::onInstant>(handle, context, std::nullopt);
}

}  // namespace instrument
