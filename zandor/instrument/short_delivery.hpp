// The short ways of an edge: to a recorder that listens alone, whose record is put where it belongs
// without a call, and to several listeners that each have a short way.
#pragma once

#include "event_context_access.hpp"
#include "latest_line.hpp"
#include "listener_array.hpp"
#include "recorder_hot.hpp"

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
        // For the compiler: the processor's fence is the heavy one of those who wait for a listener
        // or free the array, which reaches every thread where there are short ways.
        std::atomic_signal_fence(std::memory_order_seq_cst);
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
    const ListenerArray& array() const noexcept { return *array_; }
    /// The identity that a start or instant is to be told with; it is taken when they say so.
    EventId nextId() const noexcept { return {state_->source.id, state_->source.serial + 1}; }

    // Whether they did it. A stop's context is its start's.

    /// Where the array is a recorder's alone: a start or an instant.
    template <RecordKind kind>
    [[gnu::always_inline]] bool recordBegin(const Opaque* handle, std::span<const Word> context,
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
    [[gnu::always_inline]] bool begin(const Opaque* handle, std::span<const Word> context,
                                      EventId id) const noexcept {
        const std::uint64_t ticks = readTicksIfNeeded();
        if (recorder() && !putBegin<kind>(*recorder(), origin(), handle, context, id, ticks))
            [[unlikely]]
            return false;
        state_->source.serial = id.serialId;
        const ShortEdge edge = edgeOf(handle, id, ticks, context);
        if constexpr (kind == RecordKind::start)
            tell<&InstrumentListener::onStart>(array_->shortly.starts, edge, ticks, {context, {}});
        else
            tell<&InstrumentListener::onInstant>(array_->shortly.instants, edge, ticks,
                                                 {context, {}});
        return true;
    }
    [[gnu::always_inline]] bool stop(const Opaque* handle, const EdgeContext& context,
                                     EventId id) const noexcept {
        if (id.sourceId != state_->source.id) [[unlikely]]
            return false;
        const std::uint64_t ticks = readTicksIfNeeded();
        if (recorder() && !putStop(*recorder(), origin(), handle, !context.empty(), id, ticks))
            [[unlikely]]
            return false;
        const ShortEdge edge = edgeOf(handle, id, ticks, context.words);
        tell<&InstrumentListener::onStop>(array_->shortly.stops, edge, ticks, context);
        return true;
    }

  private:
    const RecorderCore* recorder() const noexcept { return array_->shortly.recorder; }
    EdgeOrigin origin() const noexcept {
        return {state_->listenerData.data(), state_->source.info};
    }
    std::uint64_t readTicksIfNeeded() const noexcept {
        return array_->shortly.needsTicks ? readTicks() : 0;
    }
    [[gnu::always_inline]] ShortEdge edgeOf(const Opaque* handle, EventId id, std::uint64_t ticks,
                                            std::span<const Word> context) const noexcept {
        return {handle, id.serialId, array_->shortly.needsTime ? latestLine.timeOf(ticks) : 0,
                state_->listenerData.data(), context};
    }

    /// One that cannot take the short way hears the edge as others do.
    template <auto operation>
    [[gnu::always_inline]] void tell(const ShortListeners::Calls& calls, const ShortEdge& edge,
                                     std::uint64_t ticks,
                                     const EdgeContext& context) const noexcept {
        for (const ShortCall* call = calls.data(); call->tell; ++call) {
            const bool isShort = context.args.empty() || call->ignoresContext;
            if (!isShort || !call->tell(call->self, edge)) [[unlikely]]
                tellGenerally<operation>(*state_, *call->listener, edge, ticks, context);
        }
    }
    template <auto operation>
    [[gnu::noinline]] static void tellGenerally(ThreadState& state, InstrumentListener& listener,
                                                const ShortEdge& edge, std::uint64_t ticks,
                                                const EdgeContext& given) noexcept {
        const KeptArgs kept(given.words);
        const bool areKept = given.args.empty();
        EventContext context = EventContextAccess::ofArgs(
            state, state.source, areKept ? kept.args() : given.args, areKept);
        EventContextAccess::giveTicks(context, ticks);
        (listener.*operation)(edge.instrument, context, {state.source.id, edge.serial});
    }

    ThreadState* state_ = nullptr;
    const ListenerArray* array_ = nullptr;
};

}  // namespace instrument::detail
