#include "zandor/instrument/call_events.hpp"

#include <exception>

#include "event_context_access.hpp"
#include "latest_line.hpp"
#include "listener_array.hpp"
#include "recorder_hot.hpp"

namespace instrument {

using namespace detail;

namespace {

[[gnu::noinline]] EventId enterGenerally(const Opaque* handle) noexcept {
    if (!listeners.anyActive())
        return noListenerEventId;
    try {
        return openEvent(handle);
    } catch (const std::exception&) {
        return suppressedEventId;
    }
}

[[gnu::noinline]] void leaveGenerally(const Opaque* handle, EventId id) noexcept {
    if (id.sourceId == 0 || !listeners.anyActive())
        return;
    try {
        closeEvent(handle, {}, id);
    } catch (const std::exception&) {
        return;
    }
}

struct Edge {
    const Opaque* handle;
    EventId id;
    std::uint64_t ticks;
};

/// To a listener that cannot take the short way this time.
template <auto operation>
[[gnu::noinline]] void tellGenerally(ThreadState& state, InstrumentListener& listener,
                                     const Edge& edge) noexcept {
    EventContext context = EventContextAccess::ofArgs(state, state.source, {}, true);
    EventContextAccess::giveTicks(context, edge.ticks);
    (listener.*operation)(edge.handle, context, edge.id);
}

/// To those beside the recorder.
template <auto operation>
[[gnu::always_inline]] inline void tellOthers(ThreadState& state, const ListenerArray& array,
                                              const ShortListeners::Calls& calls,
                                              const Edge& edge) noexcept {
    if (!calls.front().tell)
        return;
    const std::int64_t time = array.shortly.needsTime ? latestLine.timeOf(edge.ticks) : 0;
    const ShortEdge told{edge.handle, edge.id.serialId, time, state.listenerData.data(), {}};
    const ShortCall* call = calls.data();
    do {
        if (!call->tell(call->self, told)) [[unlikely]]
            tellGenerally<operation>(state, *call->listener, edge);
    } while ((++call)->tell);
}

/// The listeners that calls are told to at once: a recorder, and those of a short way. Null where
/// anything is not as usual; else the thread is marked as inside all of them.
[[gnu::always_inline]] inline const ListenerArray* beInside(ThreadState& state) noexcept {
    const ListenerArray* const array = shortListeners.load(std::memory_order_relaxed);
    if (!array || !state.isOfThisThread() || state.isInside() || !ticksAreTsc()) [[unlikely]]
        return nullptr;
    // Release, as every store of it: whoever waits for a listener may see any later one.
    state.calling.store(array->mark(), std::memory_order_release);
    // Pairs with the heavy fences of those who wait for a listener or free the array.
    lightFence();
    // Acquire pairs with the release that published the array.
    if (shortListeners.load(std::memory_order_acquire) == array) [[likely]]
        return array;
    state.calling.store(nullptr, std::memory_order_release);
    return nullptr;
}

[[gnu::always_inline]] inline void beOutside(ThreadState& state) noexcept {
    // Release pairs with the acquire of those who wait for a listener or free the array.
    state.calling.store(nullptr, std::memory_order_release);
}

[[gnu::always_inline]] inline EdgeOrigin originOf(const ThreadState& state) noexcept {
    return {state.listenerData.data(), state.source.info};
}

}  // namespace

EventId enterCall(const Opaque* handle) noexcept {
    ThreadState& state = *threadLocals.state;
    const ListenerArray* const array = beInside(state);
    if (!array) [[unlikely]]
        return enterGenerally(handle);
    const Edge edge{handle, {state.source.id, state.source.serial + 1}, readTsc()};
    if (!handle->enabled.load(std::memory_order_relaxed) || !array->shortly.recorder ||
        !putBegin<RecordKind::start>(*array->shortly.recorder, originOf(state), handle, {}, edge.id,
                                     edge.ticks)) [[unlikely]] {
        beOutside(state);
        return enterGenerally(handle);
    }
    state.source.serial = edge.id.serialId;
    tellOthers<&InstrumentListener::onStart>(state, *array, array->shortly.starts, edge);
    beOutside(state);
    return edge.id;
}

void leaveCall(const Opaque* handle, EventId id) noexcept {
    ThreadState& state = *threadLocals.state;
    const ListenerArray* const array = beInside(state);
    if (!array) [[unlikely]]
        return leaveGenerally(handle, id);
    const Edge edge{handle, id, readTsc()};
    if (id.sourceId != state.source.id || !array->shortly.recorder ||
        !putStop(*array->shortly.recorder, originOf(state), handle, false, id, edge.ticks))
        [[unlikely]] {
        beOutside(state);
        return leaveGenerally(handle, id);
    }
    tellOthers<&InstrumentListener::onStop>(state, *array, array->shortly.stops, edge);
    beOutside(state);
}

}  // namespace instrument
