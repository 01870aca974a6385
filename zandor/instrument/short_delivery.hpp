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
        if (!array || !state->isOfThisThread() || state->isInside()) [[unlikely]]
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
    /// The identity that a start or instant is to be told with; it is taken when they say so.
    EventId nextId() const noexcept { return {state_->source.id, state_->source.serial + 1}; }

    // Whether they did it. A stop's context is its start's.

    /// Where the array is a recorder's alone: a start or an instant.
    template <RecordKind kind>
    [[gnu::always_inline]] bool recordBegin(const Opaque* handle, const EdgeContext& context,
                                            EventId id) const noexcept {
        if (!ticksAreTsc() ||
            !putBegin<kind>(*recorder(), origin(), handle, context, id, readTsc())) [[unlikely]]
            return false;
        state_->source.serial = id.serialId;
        return true;
    }
    [[gnu::always_inline]] bool recordStop(const Opaque* handle, bool hasContext,
                                           EventId id) const noexcept {
        return ticksAreTsc() && putStop(*recorder(), origin(), handle, hasContext, id, readTsc());
    }

    /// To all listeners: a start or an instant.
    template <RecordKind kind>
    [[gnu::always_inline]] bool begin(const Opaque* handle, const EdgeContext& context,
                                      EventId id) const noexcept {
        const std::uint64_t ticks = readTicksIfNeeded();
        if (recorder() && !putBegin<kind>(*recorder(), origin(), handle, context, id, ticks))
            [[unlikely]]
            return false;
        state_->source.serial = id.serialId;
        if constexpr (kind == RecordKind::start)
            tell<&InstrumentListener::onStart>(array_->shortly.starts, {handle, id, ticks},
                                               context);
        else
            tell<&InstrumentListener::onInstant>(array_->shortly.instants, {handle, id, ticks},
                                                 context);
        return true;
    }
    [[gnu::always_inline]] bool stop(const Opaque* handle, const EdgeContext& context,
                                     EventId id) const noexcept {
        if (id.sourceId != state_->source.id) [[unlikely]]
            return false;
        const std::uint64_t ticks = readTicksIfNeeded();
        const bool hasContext = !context.args.empty();
        if (recorder() && !putStop(*recorder(), origin(), handle, hasContext, id, ticks))
            [[unlikely]]
            return false;
        tell<&InstrumentListener::onStop>(array_->shortly.stops, {handle, id, ticks}, context);
        return true;
    }

  private:
    struct Edge {
        const Opaque* handle;
        EventId id;
        std::uint64_t ticks;
    };

    const RecorderCore* recorder() const noexcept { return array_->shortly.recorder; }
    EdgeOrigin origin() const noexcept {
        return {state_->listenerData.data(), state_->source.info};
    }
    std::uint64_t readTicksIfNeeded() const noexcept {
        return array_->shortly.needsTicks ? readTicks() : 0;
    }

    /// One that cannot take the short way hears the edge as others do.
    template <auto operation>
    [[gnu::always_inline]] void tell(const ShortListeners::Calls& calls, const Edge& edge,
                                     const EdgeContext& context) const noexcept {
        const std::int64_t time = array_->shortly.needsTime ? latestLine.timeOf(edge.ticks) : 0;
        for (const ShortCall* call = calls.data(); call->tell; ++call) {
            const bool isShort = context.args.empty() || call->ignoresContext;
            if (!isShort || !call->tell(*call->listener, edge.handle, edge.id.serialId, time,
                                        state_->listenerData.data())) [[unlikely]]
                tellGenerally<operation>(*state_, *call->listener, edge, context);
        }
    }
    template <auto operation>
    [[gnu::noinline]] static void tellGenerally(ThreadState& state, InstrumentListener& listener,
                                                const Edge& edge,
                                                const EdgeContext& given) noexcept {
        EventContext context =
            EventContextAccess::ofArgs(state, state.source, given.args, !given.texts);
        EventContextAccess::giveTicks(context, edge.ticks);
        (listener.*operation)(edge.handle, context, edge.id);
    }

    ThreadState* state_ = nullptr;
    const ListenerArray* array_ = nullptr;
};

}  // namespace instrument::detail
