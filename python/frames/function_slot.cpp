#include "function_slot.hpp"

#include <memory>

#include "../src/errors.hpp"
#include "../src/kept_error.hpp"
#include "subscript.hpp"
#include "tracing.hpp"

namespace vantrace {

constinit Py_ssize_t functionSlot = -1;

namespace {

void freeFunction(void* function) noexcept {
    delete static_cast<Function*>(function);
}

/// Puts a new function into the code's slot.
Function& addFunction(PyCodeObject* code) {
    auto function = std::make_unique<Function>(newFunction(code));
    check(_PyCode_SetExtra(reinterpret_cast<PyObject*>(code), functionSlot, function.get()));
    return *function.release();
}

}  // namespace

bool requestFunctionSlot() {
    if (functionSlot < 0)
        functionSlot = _PyEval_RequestCodeExtraIndex(freeFunction);
    return functionSlot >= 0;
}

Function* learnFunction(const Frame* frame, const Frame* caller) noexcept {
    const KeptError error;  // a generator may be entered with an exception
    if (frame->f_code == tracing.awaited) {
        tracing.awaited = nullptr;
        return nullptr;
    }
    Function* function = knownFunction(frame->f_code);
    try {
        observeSubscripts(frame->f_code);
        if (!function)
            function = &addFunction(frame->f_code);
        decide(*function, {frame->f_code, frame->f_globals},
               caller ? knownFunction(caller->f_code) : nullptr);
    } catch (const std::exception&) {
        function = nullptr;
    } catch (const PythonError&) {
        function = nullptr;
    }
    if (!function)
        ++tracing.failedCalls;
    return function;
}

}  // namespace vantrace
