// The plug-ins that are present.
#pragma once

namespace zandor {

/// For the child of a fork, with registryLock held: other threads' calls do not go on there.
void recountCallsAfterFork() noexcept;

}  // namespace zandor
