#include "subscript.hpp"

#include <opcode.h>

#include <cstring>

#include "../src/errors.hpp"

namespace vantrace {

namespace {

/// The counter of an instruction, in the code unit after it: the count above 4 bits of back-off.
constexpr _Py_CODEUNIT onceMore = 1 << 4;

/// Replaces the opcode and keeps the argument.
void setOpcode(_Py_CODEUNIT& unit, int opcode) noexcept {
    unit = static_cast<_Py_CODEUNIT>((unit & 0xff00) | opcode);
}

void observe(_Py_CODEUNIT* subscript) noexcept {
    switch (_Py_OPCODE(*subscript)) {
        case BINARY_SUBSCR_GETITEM:
            setOpcode(*subscript, BINARY_SUBSCR_ADAPTIVE);
            subscript[1] = onceMore;
            break;
        case BINARY_SUBSCR:
        case BINARY_SUBSCR_ADAPTIVE:
            if (subscript[1] < onceMore)
                subscript[1] = onceMore;
            break;
        default:
            break;  // specialised for a class of C; another class goes the general way
    }
}

bool mayHaveSubscripts(const _Py_CODEUNIT* units, Py_ssize_t count) noexcept {
    for (Py_ssize_t i = 0; i < count; ++i) {
        if (isSubscript(_Py_OPCODE(units[i])))
            return true;
    }
    return false;
}

}  // namespace

void observeSubscripts(PyCodeObject* code) {
    _Py_CODEUNIT* units = _PyCode_CODE(code);
    const Py_ssize_t count = Py_SIZE(code);
    if (!mayHaveSubscripts(units, count))
        return;
    // The code as it was compiled tells instructions and the data between them apart. Once made it
    // would be kept.
    const bool isKept = code->_co_code != nullptr;
    const Ref compiled = Ref::take(PyCode_GetCode(code));
    const char* bytes = PyBytes_AS_STRING(compiled.get());
    for (Py_ssize_t i = 0; i < count; ++i) {
        if (static_cast<unsigned char>(bytes[2 * i]) == BINARY_SUBSCR)
            observe(units + i);
    }
    if (!isKept)
        Py_CLEAR(code->_co_code);
}

void keepGeneral(Frame* caller) noexcept {
    // A frame that has not begun stands before its first instruction.
    if (!caller || caller->prev_instr < _PyCode_CODE(caller->f_code))
        return;
    if (isSubscript(_Py_OPCODE(*caller->prev_instr)))
        setOpcode(*caller->prev_instr, BINARY_SUBSCR);
}

}  // namespace vantrace
