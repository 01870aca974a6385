// Subscripts that would enter a Python __getitem__ past the hook.
//
// CPython 3.11 calls functions without the hook in one case: a subscript instruction that it
// specialised for a class with a __getitem__ of Python enters that function directly, hook or not.
// It specialises an instruction at one of its first executions, unless that is counted down first.
// So code that is first seen has its subscripts counted down by one: the first execution goes the
// general way, through the hook, which then takes the instruction out of specialisation for good.
// Subscripts of lists, tuples and dicts lose one execution.
#pragma once

#include <opcode.h>

#include "frame.hpp"

namespace vantrace {

/// Has the first execution of each subscript in the code go the general way.
void observeSubscripts(PyCodeObject* code);

inline bool isSubscript(int opcode) noexcept {
    switch (opcode) {
        case BINARY_SUBSCR:
        case BINARY_SUBSCR_ADAPTIVE:
        case BINARY_SUBSCR_DICT:
        case BINARY_SUBSCR_GETITEM:
        case BINARY_SUBSCR_LIST_INT:
        case BINARY_SUBSCR_TUPLE_INT:
            return true;
        default:
            return false;
    }
}

/// Whether a frame stands at a subscript.
inline bool isAtSubscript(const Frame* frame) noexcept {
    // One that has not begun stands before its first instruction, still in its code object.
    return frame && isSubscript(_Py_OPCODE(*frame->prev_instr));
}

/// For a function that may be a __getitem__ and is entered from `caller`: when that is a subscript,
/// it will never be specialised.
void keepGeneral(Frame* caller) noexcept;

}  // namespace vantrace
