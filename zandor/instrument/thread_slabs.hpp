// The memory of thread states: slabs that stay mapped and are wiped on fork, so that a child finds
// all of them free.
#pragma once

#include "thread_state.hpp"

namespace instrument::detail {

/// A state that nobody uses; its recorder slots, sources and marks are zero. Null when the system
/// gives no memory. Takes no lock.
ThreadState* takeThreadState() noexcept;
void giveBackThreadState(ThreadState& state) noexcept;

}  // namespace instrument::detail
