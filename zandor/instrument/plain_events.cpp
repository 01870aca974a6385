#include "zandor/instrument/plain_events.hpp"

#include "delivery.hpp"
#include "short_delivery.hpp"

namespace instrument {

using namespace detail;

namespace {

/// For starts and instants.
template <RecordKind kind>
constexpr auto operationOf =
    kind == RecordKind::start ? &InstrumentListener::onStart : &InstrumentListener::onInstant;

EventContext noContext(ThreadState& state) noexcept {
    return EventContextAccess::ofArgs(state, state.source, {}, true);
}

template <RecordKind kind>
[[gnu::noinline]] EventId beginForAll(const Opaque* handle) {
    const Inside inside;
    if (!inside) [[unlikely]] {
        countSuppressed();
        return suppressedEventId;
    }
    ThreadState& state = inside.state();
    const EventId id = takeId(state);
    callListeners<operationOf<kind>>(state, handle, noContext(state), id);
    return id;
}

[[gnu::noinline]] void stopForAll(const Opaque* handle, EventId id) {
    const Inside inside;
    if (!inside)
        return countSuppressed();
    // What a parent had open at a fork, it closes itself.
    if (id.sourceId < firstSourceId.load(std::memory_order_relaxed)) [[unlikely]]
        return;
    callListeners<&InstrumentListener::onStop>(inside.state(), handle, noContext(inside.state()),
                                               id);
}

// For a thread that is inside its lane, and whose recorder has the edge. A thread leaves its lane
// in them, so that they may be the last thing that is called.

template <RecordKind kind>
[[gnu::noinline]] void tellListeners(ThreadState& state, const Opaque* handle, std::uint64_t serial,
                                     std::uint64_t ticks) noexcept {
    const std::int64_t time = timeOf(state, ticks);
    for (const LaneCall* call = callsOf<kind>(state.laneListeners.ofPlain); call->tell; ++call)
        if (!call->tell(call->data, handle, serial, time, {})) [[unlikely]]
            tellGenerally<kind>(state, *call->listener, handle, serial, ticks, {});
}

/// Tells one listener, as there mostly is. What a call that goes wrong needs is kept in the lane:
/// registers that are kept over a call cost more.
template <RecordKind kind>
[[gnu::always_inline]] inline void tellOnly(ThreadState& state, const LaneCall& call,
                                            const Opaque* handle, std::uint64_t serial,
                                            std::uint64_t ticks) noexcept {
    const std::int64_t time = timeOf(state, ticks);
    LaneEdge& edge = state.laneListeners.edge;
    edge = {handle, serial, ticks};
    if (!call.tell(call.data, handle, serial, time, {})) [[unlikely]]
        tellGenerally<kind>(state, *callsOf<kind>(state.laneListeners.ofPlain)->listener,
                            edge.handle, edge.serial, edge.ticks, {});
}

template <RecordKind kind>
[[gnu::always_inline]] inline void tellAllAndLeave(ThreadState& state, const Opaque* handle,
                                                   std::uint64_t serial,
                                                   std::uint64_t ticks) noexcept {
    const bool hasTime = !state.lane.needsTime || state.laneListeners.timeOf.covers(ticks);
    if (hasTime && state.lane.tellsOne) [[likely]]
        tellOnly<kind>(state, *callsOf<kind>(state.laneListeners.ofPlain), handle, serial, ticks);
    else
        tellListeners<kind>(state, handle, serial, ticks);
    leaveLane(state);
}

template <RecordKind kind>
[[gnu::noinline]] EventId beginAndLeave(ThreadState& state, const Opaque* handle,
                                        std::uint64_t ticks) noexcept {
    tellAllAndLeave<kind>(state, handle, state.source.serial, ticks);
    return latestId(state);
}

[[gnu::noinline]] void stopAndLeave(ThreadState& state, const Opaque* handle, std::uint64_t serial,
                                    std::uint64_t ticks) noexcept {
    tellAllAndLeave<RecordKind::stop>(state, handle, serial, ticks);
}

/// False where such an edge was not counted yet.
[[gnu::always_inline]] inline bool countAgain(const ThreadState& state,
                                              const Opaque* handle) noexcept {
    if (handle->id >= ShortOperations::counts) [[unlikely]]
        return false;
    ShortCount& counted = state.laneListeners.counts[handle->id];
    if (!counted.instrument.load(std::memory_order_relaxed)) [[unlikely]]
        return false;
    counted.countOne();
    return true;
}

template <RecordKind kind>
bool tellsListeners(const LaneHead& lane) noexcept {
    return kind == RecordKind::start ? lane.tellsStarts : lane.tellsInstants;
}

template <RecordKind kind>
[[gnu::always_inline]] inline EventId tellAnyAndLeave(ThreadState& state, const Opaque* handle,
                                                      std::uint64_t ticks) noexcept {
    if (tellsListeners<kind>(state.lane))
        return beginAndLeave<kind>(state, handle, ticks);
    leaveLane(state);
    return latestId(state);
}

/// For what was not counted yet.
template <RecordKind kind>
[[gnu::noinline]] EventId countGenerallyAndLeave(ThreadState& state, const Opaque* handle,
                                                 std::uint64_t ticks) noexcept {
    tellGenerally<kind>(state, *state.laneListeners.counter, handle, state.source.serial, ticks,
                        {});
    return tellAnyAndLeave<kind>(state, handle, ticks);
}

// What one word has no room for takes two.

template <RecordKind kind>
bool recordFarBegin(ThreadState& state, const Opaque* handle, std::uint64_t ticks) noexcept {
    if (!recordBegin<kind>(state, handle, {}, ticks))
        return false;
    renewBase(*state.lane.track, ticks);
    return true;
}

/// What is left of a start or an instant that the recorder has. Every call is the last thing that
/// is done, so that nothing is kept over one.
template <RecordKind kind>
[[gnu::always_inline]] inline EventId finishBegin(ThreadState& state, const Opaque* handle,
                                                  std::uint64_t ticks) noexcept {
    if (state.lane.hasCounts && !countAgain(state, handle)) [[unlikely]]
        return countGenerallyAndLeave<kind>(state, handle, ticks);
    return tellAnyAndLeave<kind>(state, handle, ticks);
}
[[gnu::always_inline]] inline void finishStop(ThreadState& state, const Opaque* handle,
                                              std::uint64_t serial, std::uint64_t ticks) noexcept {
    if (state.lane.tellsStops)
        return stopAndLeave(state, handle, serial, ticks);
    leaveLane(state);
}

using BeginGenerally = EventId(const Opaque*);
using StopGenerally = void(const Opaque*, EventId);

template <RecordKind kind>
[[gnu::noinline]] EventId beginFar(ThreadState& state, const Opaque* handle, std::uint64_t ticks,
                                   BeginGenerally* generally) {
    if (recordFarBegin<kind>(state, handle, ticks))
        return finishBegin<kind>(state, handle, ticks);
    leaveLane(state);
    return generally(handle);
}
[[gnu::noinline]] void stopFar(ThreadState& state, const Opaque* handle, EventId id,
                               std::uint64_t ticks, StopGenerally* generally) {
    if (recordFarStop(state, handle, false, id, ticks))
        return finishStop(state, handle, id.serialId, ticks);
    leaveLane(state);
    generally(handle, id);
}

/// A start or an instant by the lane; `generally` where it is not as usual. As above, every call is
/// the last thing.
template <RecordKind kind>
[[gnu::always_inline]] inline EventId begin(ThreadState* state, const Opaque* handle,
                                            BeginGenerally* generally) {
    if (!state) [[unlikely]]
        return generally(handle);
    const std::uint64_t ticks = readClock(*state);
    const EventId id = nextId(*state);
    Track* const track = state->lane.track;
    if (track && !putShortBegin<kind>(*track, handle, id, ticks)) [[unlikely]]
        return beginFar<kind>(*state, handle, ticks, generally);
    state->source.serial = id.serialId;
    return finishBegin<kind>(*state, handle, ticks);
}

/// The same for a stop.
[[gnu::always_inline]] inline void stop(ThreadState* state, const Opaque* handle, EventId id,
                                        StopGenerally* generally) {
    if (!state) [[unlikely]]
        return generally(handle, id);
    const std::uint64_t ticks = readClock(*state);
    Track* const track = state->lane.track;
    if (id.sourceId != state->source.id ||
        (track && !putShortStop(*track, handle, false, id, ticks))) [[unlikely]]
        return stopFar(*state, handle, id, ticks, generally);
    finishStop(*state, handle, id.serialId, ticks);
}

template <RecordKind kind>
[[gnu::noinline]] EventId beginGenerally(const Opaque* handle) {
    if (!listeners.anyActive())
        return noListenerEventId;
    if (!handle->enabled.load(std::memory_order_relaxed))
        return disabledEventId;
    return begin<kind>(enterNewLane(), handle, beginForAll<kind>);
}

[[gnu::noinline]] void stopGenerally(const Opaque* handle, EventId id) {
    if (id.sourceId != 0 && listeners.anyActive())
        stop(enterNewLane(), handle, id, stopForAll);
}

[[gnu::noinline]] void closeGenerally(const Opaque* handle, EventId id) noexcept {
    try {
        stopGenerally(handle, id);
    } catch (...) {
        // Nobody can be told in a destructor.
    }
}

template <RecordKind kind>
[[gnu::always_inline]] inline EventId beginWhereOn(const Opaque* handle) {
    if (!handle->enabled.load(std::memory_order_relaxed)) [[unlikely]]
        return beginGenerally<kind>(handle);
    return begin<kind>(enterLane(), handle, beginGenerally<kind>);
}

}  // namespace

EventId startPlain(const Opaque* handle) {
    return beginWhereOn<RecordKind::start>(handle);
}

void stopPlain(const Opaque* handle, EventId id) {
    stop(enterLane(), handle, id, stopGenerally);
}

void instantPlain(const Opaque* handle) {
    beginWhereOn<RecordKind::instant>(handle);
}

EventId detail::openEvent(const Opaque* handle) {
    return beginWhereOn<RecordKind::start>(handle);
}

void Scope::close(const Opaque* handle, EventId id) noexcept {
    stop(enterLane(), handle, id, closeGenerally);
}

}  // namespace instrument
