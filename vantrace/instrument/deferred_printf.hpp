// Console lines from any thread, printed on one.
#pragma once

namespace instrument {

/// Prints on the host's console, with those lines of other threads before it that were waiting,
/// when the calling thread is the printing one: the first that ever called. Lines of other threads
/// wait, in the order in which they came, for the printing thread's next call or for the end of the
/// module. Lines are cut to 2047 bytes; the result is the full length, or -1 where the arguments
/// cannot be formatted. After a fork the child prints on its only thread and repeats no line of its
/// parent's.
int deferredPrintf(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// Whoever calls deferredPrintf from a static object's operations calls this while the object is
/// constructed: what is waiting is then printed after the object's destruction.
void outliveByDeferredLines();

}  // namespace instrument
