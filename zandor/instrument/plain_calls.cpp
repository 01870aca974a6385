// Calls that are events, in one function, so that as little as there can be lies around them: where
// a recorder is all that listens. Else they go the way of other events.
#include <exception>

#include "short_delivery.hpp"
#include "zandor/instrument/plain_events.hpp"

namespace instrument {

using namespace detail;

namespace {

/// The recorder's track, for a thread that is inside its lane. Null where there is none, or
/// somebody else listens, too.
[[gnu::always_inline]] inline Track* trackAlone(const ThreadState& state) noexcept {
    return state.lane.hasListeners ? nullptr : state.lane.track;
}

/// For a thread whose state it is. A source of 0 where the start is to be told otherwise.
[[gnu::always_inline]] inline EventId startAlone(ThreadState& state,
                                                 const Opaque* handle) noexcept {
    if (!handle->enabled.load(std::memory_order_relaxed) || !enterLane(state)) [[unlikely]]
        return {};
    const EventId id = nextId(state);
    Track* const track = trackAlone(state);
    const bool isPut = track && putShortBegin<RecordKind::start>(*track, handle, id, readTsc());
    if (isPut) [[likely]]
        state.source.serial = id.serialId;
    leaveLane(state);
    return isPut ? id : EventId();
}

/// False where the stop is to be told otherwise: meanwhile listeners may have come or gone, or the
/// process have been forked.
[[gnu::always_inline]] inline bool stopAlone(const Opaque* handle, EventId id) noexcept {
    ThreadState* const state = enterLane();
    if (!state) [[unlikely]]
        return false;
    Track* const track = trackAlone(*state);
    const bool isPut = track && putShortStop(*track, handle, false, id, readTsc());
    leaveLane(*state);
    return isPut;
}

// Nobody can be told of an exception.

EventId startForAll(const Opaque* handle) noexcept {
    try {
        return startPlain(handle);
    } catch (...) {
        return suppressedEventId;
    }
}

void stopForAll(const Opaque* handle, EventId id) noexcept {
    try {
        stopPlain(handle, id);
    } catch (...) {
        return;
    }
}

[[gnu::always_inline]] inline void* run(void* first, void* second, int third,
                                        const PlainCallee& callee) {
    try {
        return callee.function(first, second, third);
    } catch (...) {
        // What unwinds a thread's stack to end it is no exception of the language.
        if (!std::current_exception())
            callee.unwound();
        std::terminate();
    }
}

[[gnu::noinline]] void* callForAll(void* first, void* second, int third, const PlainCallee& callee,
                                   const Opaque* handle) noexcept {
    const EventId id = startForAll(handle);
    void* const result = run(first, second, third, callee);
    stopForAll(handle, id);
    return result;
}

[[gnu::noinline]] void* callAlone(void* first, void* second, int third, const PlainCallee& callee,
                                  const Opaque* handle, ThreadState& state) noexcept {
    const EventId id = startAlone(state, handle);
    if (id.sourceId == 0) [[unlikely]]
        return callForAll(first, second, third, callee, handle);
    void* const result = run(first, second, third, callee);
    if (!stopAlone(handle, id)) [[unlikely]]
        stopForAll(handle, id);
    return result;
}

}  // namespace

void* callPlain(void* first, void* second, int third, const PlainCallee& callee,
                const Opaque* handle) noexcept {
    ThreadState& state = *threadLocals.state;
    // What the lane says may be outdated, but most who go the other way would enter it twice.
    if (!state.isOfThisThread() || state.lane.hasListeners)
        return callForAll(first, second, third, callee, handle);
    return callAlone(first, second, third, callee, handle, state);
}

}  // namespace instrument
