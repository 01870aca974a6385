// What is known of Python functions. Guarded by the interpreter's lock.
//
//   code object -> function_slot or function_map -> Function -> instrument
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "../src/python_api.hpp"
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
    std::uint32_t usual;    ///< the same where each call is an event without context; else 0
    FunctionKind kind;
    bool mayBeSubscript;  ///< may be called by a subscript, as a __getitem__
    bool isCoroutine;
    const instrument::Opaque* call;
    const instrument::Opaque* resume;  ///< of a generator or coroutine; else as call
};

/// Code that is entered, and the names of the module that it runs in.
struct EnteredCode {
    PyCodeObject* code;
    PyObject* globals;
};

/// A function that no session decided about yet.
Function newFunction(const PyCodeObject* code) noexcept;

/// Decides about it for the present session. The caller, where it is known, is the function below.
void decide(Function& function, EnteredCode entered, const Function* caller);

/// Where a function stands.
struct SourcePlace {
    std::string file;
    int line;
};

/// By instrument, where the functions of the process stand that were recorded so far.
const std::map<const instrument::Opaque*, SourcePlace>& sourcePlaces() noexcept;

}  // namespace vantrace
