#include "zandor/instrument/suppress_events.hpp"

#include "thread_state.hpp"

namespace instrument {

SuppressEvents::SuppressEvents() noexcept : state_(detail::ThreadState::ofThisThread()) {
    // Relaxed: only this thread and its signal handlers look.
    if (state_ && state_->inside.exchange(true, std::memory_order_relaxed))
        state_ = nullptr;
}

SuppressEvents::~SuppressEvents() {
    // After a fork in the scope the state is not this thread's any more.
    if (state_ && state_ == detail::ThreadState::find())
        state_->inside.store(false, std::memory_order_relaxed);
}

}  // namespace instrument
