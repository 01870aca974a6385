// Calls of C functions, seen by the interpreter's profile hook.
//
// That hook is one for each thread, slows every instruction, and belongs to the program as well:
// where the program sets its own, ours is gone. C functions that Python functions of libraries call
// are part of those, as everything below them is; operators are no calls.
#pragma once

#include "../src/python_api.hpp"

namespace vantrace {

/// Makes the type of what the hook keeps for a thread. Once, at import.
void addCCalls(PyObject* module);

/// Has the thread's calls of C functions be events, unless it has a profile function already.
/// Throws PythonError when an audit hook refuses.
void watchCCalls(PyThreadState* thread);

/// Ends it for all threads. False where a thread has another profile function than ours.
bool unwatchCCalls();

}  // namespace vantrace
