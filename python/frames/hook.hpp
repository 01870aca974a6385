// The frame-evaluation hook (PEP 523): every call of a Python function, in every thread.
//
//   interpreter -> evaluateFrame -> the hook that was there before, or the default evaluator
//                       |
//                  start and stop of the function's instrument
//
// While it is set the interpreter enters each Python function by a C call. Beyond half of the
// thread's C stack the hook takes itself out, so that the interpreter goes on without C calls, and
// comes back when that frame ends; meanwhile functions of no thread are traced, which is counted
// and is an event of its own. An interpreter has one hook: those of sub-interpreters are not set.
#pragma once

#include "function.hpp"

namespace vantrace {

/// Puts the hook in, for the session that begins, and looks at what runs already. Null, or why it
/// cannot be had. Throws PythonError.
const char* putHookIn();
/// Takes it out where it is the latest. Behind another tool's hook it stays and passes frames
/// through.
void takeHookOut();

/// What the hook knows of a code object, or null.
const Function* functionOfHook(PyCodeObject* code) noexcept;

}  // namespace vantrace
