// The short ways of an edge: to a recorder that listens alone, whose record is put where it belongs
// without a call, and to several listeners that each have a short way.
#pragma once

#include "event_context_access.hpp"
#include "latest_line.hpp"
#include "listener_array.hpp"
#include "recorder_hot.hpp"

namespace instrument::detail {

/// The calling thread's mark that it is inside all listeners of an array. Empty where anything is
/// not as usual; then another way decides what is.
class ShortDelivery {
  public:
    /// To the listeners of the array that stands in `place`.
    [[gnu::always_inline]] explicit ShortDelivery(
        const std::atomic<const ListenerArray*>& place) noexcept {
        ThreadState* const state = threadLocals.state;
        const ListenerArray* const array = place.load(std::memory_order_relaxed);
        if (!array || !state->isOfThisThread() || state->isInside() || !ticksAreTsc())
            return;
        // Release, as every store of it: whoever waits for a listener may see any later one.
        state->calling.store(array->mark(), std::memory_order_release);
        // Pairs with the heavy fences of those who wait for a listener or free the array.
        lightFence();
        // Acquire pairs with the release that published the array.
        if (place.load(std::memory_order_acquire) != array) [[unlikely]] {
            state->calling.store(nullptr, std::memory_order_release);
            return;
        }
        state_ = state;
        array_ = array;
    }
    [[gnu::always_inline]] ~ShortDelivery() {
        // Release pairs with the acquire of those who wait for a listener or free the array.
        if (state_) [[likely]]
            state_->calling.store(nullptr, std::memory_order_release);
    }
    ShortDelivery(const ShortDelivery&) = delete;
    ShortDelivery& operator=(const ShortDelivery&) = delete;

    explicit operator bool() const noexcept { return state_ != nullptr; }

    ThreadState& state() const noexcept { return *state_; }
    /// The identity that a start is to be told with; it is taken when start says so.
    EventId nextId() const noexcept { return {state_->source.id, state_->source.serial + 1}; }

    // Whether they did it. The context's texts are the library's own.

    /// Where the array is a recorder's alone.
    [[gnu::always_inline]] bool recordStart(const Opaque* handle, ContextArgs kept,
                                            EventId id) const noexcept {
        if (!putStart(*array_->recorder, origin(), handle, kept, id, readTsc())) [[unlikely]]
            return false;
        state_->source.serial = id.serialId;
        return true;
    }
    [[gnu::always_inline]] bool recordStop(const Opaque* handle, bool hasContext,
                                           EventId id) const noexcept {
        return putStop(*array_->recorder, origin(), handle, hasContext, id, readTsc());
    }

    /// Where each of them has a short way.
    [[gnu::always_inline]] bool start(const Opaque* handle, ContextArgs kept,
                                      EventId id) const noexcept {
        const std::uint64_t ticks = array_->needsTicks ? readTsc() : 0;
        if (array_->recorder && !putStart(*array_->recorder, origin(), handle, kept, id, ticks))
            [[unlikely]]
            return false;
        state_->source.serial = id.serialId;
        tellOthers<&ShortOperations::start, &InstrumentListener::onStart>(
            edgeOf(handle, kept, id, ticks));
        return true;
    }
    [[gnu::always_inline]] bool stop(const Opaque* handle, ContextArgs kept,
                                     EventId id) const noexcept {
        if (id.sourceId != state_->source.id) [[unlikely]]
            return false;
        const std::uint64_t ticks = array_->needsTicks ? readTsc() : 0;
        if (array_->recorder &&
            !putStop(*array_->recorder, origin(), handle, !kept.empty(), id, ticks)) [[unlikely]]
            return false;
        tellOthers<&ShortOperations::stop, &InstrumentListener::onStop>(
            edgeOf(handle, kept, id, ticks));
        return true;
    }

  private:
    EdgeOrigin origin() const noexcept {
        return {state_->listenerData.data(), state_->source.info};
    }
    Edge edgeOf(const Opaque* handle, ContextArgs kept, EventId id,
                std::uint64_t ticks) const noexcept {
        const std::int64_t time = array_->needsTime ? latestLine.timeOf(ticks) : 0;
        return {handle, id, kept, ticks, time, state_->listenerData.data(), state_->source.info};
    }

    /// One that cannot take the short way hears the edge as others do.
    template <auto shortOperation, auto operation>
    [[gnu::always_inline]] void tellOthers(const Edge& edge) const noexcept {
        Registration* const* const first = array_->begin() + (array_->recorder ? 1 : 0);
        for (Registration* const* other = first; other != array_->end(); ++other) {
            InstrumentListener& listener = *(*other)->listener;
            const ShortOperations::Operation tell = (*other)->shortWay->*shortOperation;
            if (tell && !tell(listener, edge)) [[unlikely]]
                tellGenerally<operation>(*state_, listener, edge);
        }
    }
    template <auto operation>
    [[gnu::noinline]] static void tellGenerally(ThreadState& state, InstrumentListener& listener,
                                                const Edge& edge) noexcept {
        EventContext context = EventContextAccess::ofArgs(state, state.source, edge.context, true);
        EventContextAccess::giveTicks(context, edge.ticks);
        (listener.*operation)(edge.instrument, context, edge.id);
    }

    ThreadState* state_ = nullptr;
    const ListenerArray* array_ = nullptr;
};

}  // namespace instrument::detail
