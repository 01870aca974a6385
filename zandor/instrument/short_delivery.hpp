// The short way of an edge that a thread tells of its own event: to a recorder, whose record is put
// where it belongs without a call, and to listeners that have short ways, by the thread's lane.
#pragma once

#include "recorder_context.hpp"
#include "recorder_hot.hpp"
#include "thread_state.hpp"

namespace instrument::detail {

/// The context of an edge: none, or one of the two.
struct EdgeContext {
    std::span<const Word> words;
    ContextArgs args;  ///< as given

    bool empty() const noexcept { return words.empty() && args.empty(); }
};

/// A context of few entries in words, for an instant.
class FewWords {
  public:
    /// No words where the system gives no memory for a text.
    FewWords(ContextArgs context, TextCache& texts) noexcept
        : end_(context.empty() ? words_ : encodeGiven(context, texts, words_)) {}
    FewWords(const FewWords&) = delete;
    FewWords& operator=(const FewWords&) = delete;

    explicit operator bool() const noexcept { return end_ != nullptr; }
    std::span<const Word> words() const noexcept { return {words_, end_}; }

  private:
    Word words_[KeptContext::fewWords];
    const Word* end_;
};

/// Marks the calling thread, whose state it is, as inside all listeners of its lane. False where it
/// has none that holds, or is inside a listener.
[[gnu::always_inline]] inline bool enterLane(ThreadState& state) noexcept {
    if (state.isInside()) [[unlikely]]
        return false;
    // Release, as every store of it: whoever waits for a listener may see any later one.
    state.calling.store(state.laneMark(), std::memory_order_release);
    // For the compiler: the processor's fence is the heavy one of those who wait for a listener,
    // which reaches every thread where there are lanes.
    std::atomic_signal_fence(std::memory_order_seq_cst);
    // Acquire pairs with outdateLanes.
    if (listeners.version.load(std::memory_order_acquire) == state.lane.version) [[likely]]
        return true;
    state.calling.store(nullptr, std::memory_order_release);
    return false;
}
/// The same for whatever thread calls. Null where it cannot be there.
[[gnu::always_inline]] inline ThreadState* enterLane() noexcept {
    ThreadState* const state = threadLocals.state;
    return state->isOfThisThread() && enterLane(*state) ? state : nullptr;
}
[[gnu::always_inline]] inline void leaveLane(ThreadState& state) noexcept {
    // Release pairs with the acquire of those who wait for a listener.
    state.calling.store(nullptr, std::memory_order_release);
}
/// As enterLane, where the lane is to be found first. Null also where some listener has to be told
/// the general way first.
ThreadState* enterNewLane() noexcept;

/// What a start or an instant is told with by the lane; it is taken when the lane says so.
[[gnu::always_inline]] inline EventId nextId(const ThreadState& state) noexcept {
    return {state.source.id, state.source.serial + 1};
}

/// The identity of what was told last.
[[gnu::always_inline]] inline EventId latestId(const ThreadState& state) noexcept {
    return {state.source.id, state.source.serial};
}

/// The calls that a kind of edge is for.
template <RecordKind kind>
const LaneCall* callsOf(const LaneCalls& calls) noexcept {
    if constexpr (kind == RecordKind::start)
        return calls.starts.data();
    else if constexpr (kind == RecordKind::stop)
        return calls.stops.data();
    else
        return calls.instants.data();
}

// For a thread that is inside its lane.

[[gnu::always_inline]] inline EventId takeId(ThreadState& state) noexcept {
    return {state.source.id, ++state.source.serial};
}

[[gnu::always_inline]] inline std::uint64_t readClock(const ThreadState& state) noexcept {
    return state.lane.needsTicks ? readTsc() : 0;
}
[[gnu::always_inline]] inline std::int64_t timeOf(ThreadState& state,
                                                  std::uint64_t ticks) noexcept {
    return state.lane.needsTime ? state.laneListeners.timeOf(ticks) : 0;
}

/// A listener that cannot take the short way hears the edge as others do.
template <RecordKind kind>
void tellGenerally(ThreadState& state, InstrumentListener& listener, const Opaque* handle,
                   std::uint64_t serial, std::uint64_t ticks, const EdgeContext& context) noexcept;

/// Tells the listeners beside the recorder.
template <RecordKind kind>
[[gnu::noinline]] void tellOthers(ThreadState& state, const Opaque* handle, std::uint64_t serial,
                                  std::uint64_t ticks, const EdgeContext& context) noexcept {
    const std::int64_t time = timeOf(state, ticks);
    for (const LaneCall* call = callsOf<kind>(state.laneListeners.ofAny); call->tell; ++call) {
        const bool isShort = context.args.empty() || call->ignoresContext;
        if (!isShort || !call->tell(call->data, handle, serial, time, context.words)) [[unlikely]]
            tellGenerally<kind>(state, *call->listener, handle, serial, ticks, context);
    }
}

/// Has the recorder take a start or an instant, if there is one; false where it cannot.
template <RecordKind kind>
[[gnu::always_inline]] inline bool recordBegin(ThreadState& state, const Opaque* handle,
                                               std::span<const Word> context,
                                               std::uint64_t ticks) noexcept {
    const EventId id = nextId(state);
    Track* const track = state.lane.track;
    if (track && !putBegin<kind>(*track, handle, context, id, ticks)) [[unlikely]]
        return false;
    state.source.serial = id.serialId;
    return true;
}

/// Where one word has no room for it, or the event is of another source. Only with a recorder.
[[gnu::noinline]] bool recordFarStop(ThreadState& state, const Opaque* handle, bool hasContext,
                                     EventId id, std::uint64_t ticks) noexcept;

/// The same for a stop.
[[gnu::always_inline]] inline bool recordStop(ThreadState& state, const Opaque* handle,
                                              bool hasContext, EventId id,
                                              std::uint64_t ticks) noexcept {
    Track* const track = state.lane.track;
    if (id.sourceId != state.source.id) [[unlikely]]
        return false;
    if (track && !putShortStop(*track, handle, hasContext, id, ticks)) [[unlikely]]
        return recordFarStop(state, handle, hasContext, id, ticks);
    return true;
}

/// The calling thread inside its lane, for edges with context. Empty where it cannot be there.
class InsideLane {
  public:
    [[gnu::always_inline]] InsideLane() noexcept : state_(enterLane()) {
        if (!state_) [[unlikely]]
            state_ = enterNewLane();
    }
    [[gnu::always_inline]] ~InsideLane() {
        if (state_) [[likely]]
            leaveLane(*state_);
    }
    InsideLane(const InsideLane&) = delete;
    InsideLane& operator=(const InsideLane&) = delete;

    explicit operator bool() const noexcept { return state_ != nullptr; }
    ThreadState& state() const noexcept { return *state_; }

    // Whether it was told.

    /// A start or an instant.
    template <RecordKind kind>
    [[gnu::always_inline]] bool begin(const Opaque* handle,
                                      std::span<const Word> context) const noexcept {
        const std::uint64_t ticks = readClock(*state_);
        if (!recordBegin<kind>(*state_, handle, context, ticks)) [[unlikely]]
            return false;
        if (state_->lane.hasListeners)
            tellOthers<kind>(*state_, handle, state_->source.serial, ticks, {context, {}});
        return true;
    }
    /// A stop, with its start's context.
    [[gnu::always_inline]] bool stop(const Opaque* handle, const EdgeContext& context,
                                     EventId id) const noexcept {
        const std::uint64_t ticks = readClock(*state_);
        if (!recordStop(*state_, handle, !context.empty(), id, ticks)) [[unlikely]]
            return false;
        if (state_->lane.tellsStops)
            tellOthers<RecordKind::stop>(*state_, handle, id.serialId, ticks, context);
        return true;
    }

  private:
    ThreadState* state_;
};

}  // namespace instrument::detail
