// Threads that begin while the profile hook sees functions: those that threading starts.
#pragma once

namespace vantrace {

/// Has them watched, unless the program has a profile function for its threads, which then is
/// theirs. Throws PythonError.
void watchNewThreads();

/// Ends it.
void leaveNewThreads();

}  // namespace vantrace
