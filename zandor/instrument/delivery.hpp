// Delivering one edge of an event to every listener.
#pragma once

#include <cxxabi.h>

#include <exception>
#include <span>

#include "event_context_access.hpp"
#include "listener_array.hpp"
#include "process_state.hpp"

namespace instrument::detail {

inline void countSuppressed() noexcept {
    processState().suppressedEvents.fetch_add(1, std::memory_order_relaxed);
}

/// The calling thread's mark that it delivers an event. It is empty where there is such a mark
/// already, or the thread can have none: then an event is to be counted as suppressed.
class Inside {
  public:
    [[gnu::always_inline]] Inside() noexcept : state_(ThreadState::ofThisThread()) {
        // Only signal handlers of this thread look, so the compiler's order is enough.
        if (!state_ || state_->isInside()) [[unlikely]] {
            state_ = nullptr;
            return;
        }
        // Release, as every store of it: whoever waits for a listener may see any later one.
        state_->calling.store(state_->noListener(), std::memory_order_release);
        std::atomic_signal_fence(std::memory_order_seq_cst);
    }
    [[gnu::always_inline]] ~Inside() {
        if (!state_ || hasForked(*state_)) [[unlikely]]
            return;
        // Release pairs with the acquire of those who wait for the listener.
        state_->calling.store(nullptr, std::memory_order_release);
    }
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;

    explicit operator bool() const noexcept { return state_ != nullptr; }
    ThreadState& state() const noexcept { return *state_; }

    /// Whether a listener forked and this is the child: the state is not this thread's any more.
    [[gnu::always_inline]] static bool hasForked(const ThreadState& state) noexcept {
        return !state.isOfThisThread();
    }

  private:
    ThreadState* state_;
};

/// The listeners, for as long as the thread goes through them.
class ProtectedListeners {
  public:
    explicit ProtectedListeners(ThreadState& state) noexcept
        : state_(state), array_(protectListeners(state)) {}
    ~ProtectedListeners() {
        // Release pairs with the acquire of those who free the array.
        if (!Inside::hasForked(state_)) [[likely]]
            state_.snapshot.store(nullptr, std::memory_order_release);
    }
    ProtectedListeners(const ProtectedListeners&) = delete;
    ProtectedListeners& operator=(const ProtectedListeners&) = delete;

    std::span<Registration* const> all() const noexcept {
        return array_ ? std::span(array_->begin(), array_->end())
                      : std::span<Registration* const>();
    }

  private:
    ThreadState& state_;
    const ListenerArray* array_;
};

/// Calls one operation of each listener. Those after one that throws still hear the event; then the
/// first exception goes on.
template <auto operation, class... Time>
[[gnu::noinline]] void callEachListener(ThreadState& state, const Opaque* handle,
                                        const EventContext& context, EventId id, Time... time) {
    const ProtectedListeners listeners(state);
    std::exception_ptr first;
    for (const Registration* registration : listeners.all()) {
        InstrumentListener& listener = *registration->listener;
        // Release pairs with the acquire of those who wait for the listener before.
        state.calling.store(&listener, std::memory_order_release);
        // Pairs with the heavy fence after a removal: one of the two sees the other.
        lightFence();
        if (registration->removed.load(std::memory_order_acquire)) [[unlikely]]
            continue;
        try {
            (listener.*operation)(handle, context, id, time...);
        } catch (const abi::__forced_unwind&) {
            throw;  // the thread is cancelled
        } catch (...) {
            if (!first)
                first = std::current_exception();
        }
        if (Inside::hasForked(state)) [[unlikely]]
            break;
    }
    if (first) [[unlikely]]
        std::rethrow_exception(first);
}

/// The same for a thread that is marked as inside, with a short way to the only listener.
template <auto operation, class... Time>
[[gnu::always_inline]] inline void callListeners(ThreadState& state, const Opaque* handle,
                                                 const EventContext& context, EventId id,
                                                 Time... time) {
    if (InstrumentListener* only = protectOnlyListener(state))
        (only->*operation)(handle, context, id, time...);
    else
        callEachListener<operation>(state, handle, context, id, time...);
}

}  // namespace instrument::detail
