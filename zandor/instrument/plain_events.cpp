#include "zandor/instrument/plain_events.hpp"

#include "event_context_access.hpp"
#include "recorder_core.hpp"
#include "short_delivery.hpp"
#include "zandor/instrument/decided_events.hpp"

namespace instrument {

using namespace detail;

namespace detail {

constinit std::atomic<std::uint64_t> lanesVersion{1};

}  // namespace detail

namespace {

/// The registration beside the recorder's of two, or null.
const Registration* otherOf(const ListenerArray& array) noexcept {
    for (const Registration* registration : array)
        if (registration->shortWay)
            return registration;
    return nullptr;
}

/// Finds what the lane of the calling thread needs, where all listeners can have it and know the
/// thread already.
void makeLane() noexcept {
    // Acquire pairs with outdateLanes: what changes later outdates this lane, too.
    const std::uint64_t version = lanesVersion.load(std::memory_order_acquire);
    const ShortDelivery delivery(shortListeners);
    if (!delivery || !ticksAreTsc())
        return;
    ThreadState& state = delivery.state();
    const ListenerArray& array = delivery.array();
    const ListenerSlot* const slots = state.listenerData.data();
    Track* const track =
        array.shortly.recorder ? array.shortly.recorder->knownTrack(slots) : nullptr;
    if (!track || array.count > 2)
        return;
    PlainLane lane{version, array.mark(), track, nullptr, nullptr, nullptr, {}};
    if (const Registration* const other = otherOf(array)) {
        const ShortWay& way = *other->shortWay;
        lane.others = way.operations().plain;
        lane.listener = other->listener;
        lane.data = lane.others ? lane.others->dataOf(way.self(), slots) : nullptr;
        if (!lane.data)
            return;
    }
    state.lane = lane;
}

[[gnu::noinline]] EventId startGenerally(const Opaque* handle) {
    if (!listeners.anyActive())
        return noListenerEventId;
    if (!handle->enabled.load(std::memory_order_relaxed))
        return disabledEventId;
    const EventId id = openEvent(handle);
    makeLane();
    return id;
}

[[gnu::noinline]] void stopGenerally(const Opaque* handle, EventId id) {
    if (id.sourceId != 0 && listeners.anyActive())
        closeEvent(handle, {}, id);
}

[[gnu::noinline]] void instantGenerally(const Opaque* handle) {
    if (!listeners.anyActive() || !handle->enabled.load(std::memory_order_relaxed))
        return;
    tellInstant(handle, {});
    makeLane();
}

/// To the listener beside the recorder, which cannot take the short way this time.
template <auto operation>
[[gnu::noinline]] void tellGenerally(ThreadState& state, const Opaque* handle, EventId id,
                                     std::uint64_t ticks) noexcept {
    EventContext context = EventContextAccess::ofArgs(state, state.source, {}, true);
    EventContextAccess::giveTicks(context, ticks);
    (state.lane.listener->*operation)(handle, context, id);
}

/// Marks the thread as inside all listeners. False where it has no lane that holds.
[[gnu::always_inline]] inline bool beInside(ThreadState& state) noexcept {
    if (!state.isOfThisThread() || state.isInside()) [[unlikely]]
        return false;
    // Release, as every store of it: whoever waits for a listener may see any later one.
    state.calling.store(state.lane.mark, std::memory_order_release);
    // Pairs with the heavy fences of those who wait for a listener or free the array.
    lightFence();
    // Acquire pairs with outdateLanes.
    if (lanesVersion.load(std::memory_order_acquire) == state.lane.version) [[likely]]
        return true;
    state.calling.store(nullptr, std::memory_order_release);
    return false;
}

[[gnu::always_inline]] inline void beOutside(ThreadState& state) noexcept {
    // Release pairs with the acquire of those who wait for a listener or free the array.
    state.calling.store(nullptr, std::memory_order_release);
}

/// Puts a record of two words where there is room for it. Its head is made when all else is known
/// to be as it has to be.
[[gnu::always_inline]] inline void put(Track& track, Word* at, RecordHead head,
                                       std::uint64_t ticks) noexcept {
    at[0] = head.word();
    at[1] = ticks;
    // Pairs with the acquire of readers: with the tail come the records before it.
    track.tail.store(at + wordsOf(head.kind()), std::memory_order_release);
}

/// A start or an instant.
template <RecordKind kind>
[[gnu::always_inline]] inline bool putBegin(Track& track, const ThreadSource& source,
                                            const Opaque* handle, std::uint64_t ticks) noexcept {
    Word* const at = track.tail.load(std::memory_order_relaxed);  // this thread's own
    if (track.stream.info != source.info || track.stream.nextSerial != source.serial + 1 ||
        at + wordsOf(kind) > track.limit) [[unlikely]]
        return false;
    ++track.stream.nextSerial;
    if constexpr (kind == RecordKind::start)
        ++track.open;
    put(track, at, RecordHead(kind, false, 0, handle->id, 0), ticks);
    return true;
}

[[gnu::always_inline]] inline bool putStop(Track& track, const ThreadSource& source,
                                           const Opaque* handle, EventId id,
                                           std::uint64_t ticks) noexcept {
    Word* const at = track.tail.load(std::memory_order_relaxed);  // this thread's own
    const std::uint64_t back = track.stream.nextSerial - id.serialId;
    if (track.stream.info != source.info || id.sourceId != source.id ||
        id.serialId < track.runFirst || track.hasLost || back - 1 >= RecordHead::serialLimit - 1 ||
        at + wordsOf(RecordKind::stop) > track.limit) [[unlikely]]
        return false;
    --track.open;
    put(track, at, RecordHead(RecordKind::stop, false, 0, handle->id, back), ticks);
    return true;
}

}  // namespace

EventId startPlain(const Opaque* handle) {
    ThreadState& state = *threadLocals.state;
    if (!handle->enabled.load(std::memory_order_relaxed) || !beInside(state)) [[unlikely]]
        return startGenerally(handle);
    PlainLane& lane = state.lane;
    const std::uint64_t ticks = readTsc();
    if (!putBegin<RecordKind::start>(*lane.track, state.source, handle, ticks)) [[unlikely]] {
        beOutside(state);
        return startGenerally(handle);
    }
    const EventId id{state.source.id, ++state.source.serial};
    if (lane.others && !lane.others->start(lane.data, handle, id.serialId, lane.timeOf(ticks)))
        [[unlikely]]
        tellGenerally<&InstrumentListener::onStart>(state, handle, id, ticks);
    beOutside(state);
    return id;
}

void stopPlain(const Opaque* handle, EventId id) {
    ThreadState& state = *threadLocals.state;
    if (!beInside(state)) [[unlikely]]
        return stopGenerally(handle, id);
    PlainLane& lane = state.lane;
    const std::uint64_t ticks = readTsc();
    if (!putStop(*lane.track, state.source, handle, id, ticks)) [[unlikely]] {
        beOutside(state);
        return stopGenerally(handle, id);
    }
    if (lane.others && !lane.others->stop(lane.data, id.serialId, lane.timeOf(ticks))) [[unlikely]]
        tellGenerally<&InstrumentListener::onStop>(state, handle, id, ticks);
    beOutside(state);
}

void instantPlain(const Opaque* handle) {
    ThreadState& state = *threadLocals.state;
    if (!handle->enabled.load(std::memory_order_relaxed) || !beInside(state)) [[unlikely]]
        return instantGenerally(handle);
    const bool isPut =
        putBegin<RecordKind::instant>(*state.lane.track, state.source, handle, readTsc());
    if (isPut) [[likely]]
        ++state.source.serial;
    beOutside(state);
    if (!isPut) [[unlikely]]
        instantGenerally(handle);
}

}  // namespace instrument
