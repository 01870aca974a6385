#include "short_delivery.hpp"

#include <algorithm>

#include "event_context_access.hpp"
#include "listener_array.hpp"
#include "recorder_core.hpp"

namespace instrument::detail {

namespace {

/// The listeners that are registered, for a thread that makes its lane: none of them goes, nor the
/// array. It is marked as inside of them.
class ListenersOfLane {
  public:
    explicit ListenersOfLane(ThreadState& state) noexcept : state_(state) {
        state.calling.store(state.laneMark(), std::memory_order_release);
        array_ = protectListeners(state);
    }
    ~ListenersOfLane() {
        // Release pairs with the acquire of those who free the array or wait for a listener.
        state_.snapshot.store(nullptr, std::memory_order_release);
        state_.calling.store(nullptr, std::memory_order_release);
    }
    ListenersOfLane(const ListenersOfLane&) = delete;
    ListenersOfLane& operator=(const ListenersOfLane&) = delete;

    const ListenerArray* array() const noexcept { return array_; }

  private:
    ThreadState& state_;
    const ListenerArray* array_;
};

void addCall(std::array<LaneCall, LaneCalls::most + 1>& calls, ShortOperations::Operation tell,
             const LaneCall& call) {
    if (!tell)
        return;
    LaneCall& place = *std::ranges::find(calls, nullptr, &LaneCall::tell);
    place = call;
    place.tell = tell;
}

void addCalls(LaneCalls& calls, const ShortOperations& operations, const LaneCall& call) {
    addCall(calls.starts, operations.start, call);
    addCall(calls.stops, operations.stop, call);
    addCall(calls.instants, operations.instant, call);
}

/// False where the listener does not know the thread yet.
bool addListener(LaneHead& lane, LaneListeners& others, const Registration& registration,
                 const ListenerSlot* slots) noexcept {
    const ShortWay& way = *registration.shortWay;
    const ShortOperations& operations = way.operations();
    void* const data = operations.dataOf(way.self(), slots);
    if (!data)
        return false;
    const LaneCall call{nullptr, data, registration.listener, operations.ignoresContext};
    addCalls(others.ofAny, operations, call);
    ShortCount* const counts =
        operations.countsOf && !others.counts ? operations.countsOf(data) : nullptr;
    if (counts) {
        others.counts = counts;
        others.counter = registration.listener;
    } else {
        addCalls(others.ofPlain, operations, call);
    }
    lane.needsTime = lane.needsTime || operations.needsTime;
    return true;
}

/// False where they cannot be told by a lane, or do not all know the thread yet.
bool findLane(ThreadState& state, const ListenerArray& array) noexcept {
    const ListenerSlot* const slots = state.listenerData.data();
    LaneHead lane{};
    LaneListeners others{};
    for (const Registration* registration : array) {
        if (registration->removed.load(std::memory_order_acquire))
            return false;
        if (registration->shortWay && !addListener(lane, others, *registration, slots))
            return false;
    }
    if (array.recorder && !(lane.track = array.recorder->knownTrack(slots)))
        return false;
    lane.needsTicks = lane.track || lane.needsTime;
    if (lane.needsTicks && !ticksAreTsc())
        return false;
    lane.hasListeners = others.ofAny.starts.front().tell || others.ofAny.instants.front().tell;
    lane.hasCounts = others.counts;
    lane.tellsStarts = others.ofPlain.starts.front().tell;
    lane.tellsStops = others.ofPlain.stops.front().tell;
    lane.tellsInstants = others.ofPlain.instants.front().tell;
    lane.tellsOne = !others.ofPlain.starts[1].tell && !others.ofPlain.stops[1].tell &&
                    !others.ofPlain.instants[1].tell;
    state.lane = lane;
    state.laneListeners = others;
    return true;
}

template <RecordKind kind>
constexpr auto operationOf = kind == RecordKind::start  ? &InstrumentListener::onStart
                             : kind == RecordKind::stop ? &InstrumentListener::onStop
                                                        : &InstrumentListener::onInstant;

}  // namespace

[[gnu::noinline]] ThreadState* enterNewLane() noexcept {
    if (!lanesArePossible.load(std::memory_order_relaxed))
        return nullptr;
    ThreadState* const state = ThreadState::find();
    if (!state || state->isInside())
        return nullptr;
    // Acquire pairs with outdateLanes: what changes later outdates this lane, too.
    const std::uint64_t version = listeners.version.load(std::memory_order_acquire);
    {
        const ListenersOfLane present(*state);
        state->lane = {};
        if (!present.array() || !present.array()->isShort || !findLane(*state, *present.array()))
            return nullptr;
        state->lane.version = version;
    }
    return enterLane();
}

[[gnu::noinline]] bool recordFarStop(ThreadState& state, const Opaque* handle, bool hasContext,
                                     EventId id, std::uint64_t ticks) noexcept {
    Track* const track = state.lane.track;
    if (id.sourceId != state.source.id || !putStop(*track, handle, hasContext, id, ticks))
        return false;
    renewBase(*track, ticks);
    return true;
}

template <RecordKind kind>
[[gnu::noinline]] void tellGenerally(ThreadState& state, InstrumentListener& listener,
                                     const Opaque* handle, std::uint64_t serial,
                                     std::uint64_t ticks, const EdgeContext& given) noexcept {
    const KeptArgs kept(given.words);
    const bool areKept = given.args.empty();
    EventContext context = EventContextAccess::ofArgs(state, state.source,
                                                      areKept ? kept.args() : given.args, areKept);
    EventContextAccess::giveTicks(context, ticks);
    (listener.*operationOf<kind>)(handle, context, {state.source.id, serial});
}
template void tellGenerally<RecordKind::start>(ThreadState&, InstrumentListener&, const Opaque*,
                                               std::uint64_t, std::uint64_t,
                                               const EdgeContext&) noexcept;
template void tellGenerally<RecordKind::stop>(ThreadState&, InstrumentListener&, const Opaque*,
                                              std::uint64_t, std::uint64_t,
                                              const EdgeContext&) noexcept;
template void tellGenerally<RecordKind::instant>(ThreadState&, InstrumentListener&, const Opaque*,
                                                 std::uint64_t, std::uint64_t,
                                                 const EdgeContext&) noexcept;

}  // namespace instrument::detail
