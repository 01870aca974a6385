// What is known of Python functions, kept in the extra slot of their code objects.
//
//   code object -> extra slot -> Function -> instrument
//
// A Function is made when its code is first entered and freed with the code: another code object at
// the same address begins with an empty slot. All of it is guarded by the interpreter's lock.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "frame.hpp"
#include "zandor/instrument/control_element.hpp"

namespace vantrace {

enum class FunctionKind : std::uint8_t {
    recorded,   ///< its calls are events
    collapsed,  ///< its time is its caller's; its calls are counted
    import,     ///< where an import begins
    own,        ///< this package's
};

struct Function {
    std::uint32_t session;  ///< that decided about it
    FunctionKind kind;
    bool mayBeSubscript;  ///< may be called by a subscript, as a __getitem__
    bool isCoroutine;
    const instrument::Opaque* call;
    const instrument::Opaque* resume;  ///< of a generator or coroutine; else as call
};

/// Takes the extra slot. Once; throws PythonError.
void requestFunctionSlot();

/// The slot that requestFunctionSlot took.
extern constinit Py_ssize_t functionSlot;

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

/// Where a function stands.
struct SourcePlace {
    std::string file;
    int line;
};

/// By instrument, where the functions of the process stand that were recorded so far.
const std::map<const instrument::Opaque*, SourcePlace>& sourcePlaces() noexcept;

}  // namespace vantrace
