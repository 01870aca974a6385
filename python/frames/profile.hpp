// The interpreter's profile hook: calls of C functions, and of Python functions where there is no
// other way to see these.
//
// That hook is one for each thread, slows every instruction, and belongs to the program as well:
// where the program sets its own, ours is gone. C functions that Python functions of libraries call
// are part of those, as everything below them is; operators are no calls. It does not see the call
// that makes a generator or coroutine, but each step of it.
#pragma once

#include "../src/python_api.hpp"

namespace vantrace {

/// Makes the type of what the hook keeps for a thread. Once, at import.
void addProfile(PyObject* module);

/// Has the thread's calls be events, unless it has a profile function already. Throws PythonError
/// when an audit hook refuses.
void watchCalls(PyThreadState* thread);

/// The same for all threads there are.
void watchAllCalls();

/// Ends it for all threads. False where a thread has another profile function than ours.
bool unwatchCalls();

/// Has the calling thread's calls be events from that frame on, where not null, whatever profile
/// function it has; where tracing has ended it has none then.
void watchCallsFrom(PyThreadState* thread, PyFrameObject* entered);

}  // namespace vantrace
