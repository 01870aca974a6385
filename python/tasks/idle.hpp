// Tasks at the interpreter's idle prompt.
#pragma once

namespace vantrace {

/// Runs tasks of both sessions for a moment, too short to be felt by who types. Whether there is
/// more to do at once: not when all is done, paused, or in another thread's hands. Errors of tasks
/// are reported, for there is no caller to take them. Call it without the interpreter's lock.
bool runIdleSlice() noexcept;

/// Has tasks run while the interpreter waits for a line to be typed, before what the earlier input
/// hook does. Once.
void installInputHook();

}  // namespace vantrace
