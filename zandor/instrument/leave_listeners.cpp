#include "zandor/instrument/leave_listeners.hpp"

#include "thread_state.hpp"

namespace instrument {

void leaveListeners() noexcept {
    detail::ThreadState* state = detail::ThreadState::find();
    if (!state)
        return;
    // Release pairs with the acquire of those who wait for the listener, or free the array.
    state->calling.store(state->noListener(), std::memory_order_release);
    state->snapshot.store(nullptr, std::memory_order_release);
}

}  // namespace instrument
