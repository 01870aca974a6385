// Functions in the extra slot of their code objects, for the frame-evaluation hook.
//
// A Function is made when its code is first entered and freed with the code: another code object at
// the same address begins with an empty slot. All of it is guarded by the interpreter's lock.
#pragma once

#include "frame.hpp"
#include "function.hpp"

namespace vantrace {

/// Takes the extra slot, once. False where other tools took all that there are.
bool requestFunctionSlot();

/// The slot that requestFunctionSlot took.
extern constinit Py_ssize_t functionSlot [[gnu::visibility("hidden")]];

/// What code objects point to, as CPython 3.11 lays it out.
struct CodeExtras {
    Py_ssize_t count;
    void* values[1];
};

/// The function of a code object; null where it is not known yet.
inline Function* knownFunction(PyCodeObject* code) noexcept {
    const auto* extras = static_cast<const CodeExtras*>(code->co_extra);
    if (!extras || extras->count <= functionSlot)
        return nullptr;
    return static_cast<Function*>(extras->values[functionSlot]);
}

/// Makes the function of a frame's code, or decides about it anew for the present session. The
/// caller, or null, is the frame below. Null, which is counted, when there is no memory,
/// and for the code that is awaited.
Function* learnFunction(const Frame* frame, const Frame* caller) noexcept;

}  // namespace vantrace
