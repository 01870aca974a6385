// C++ exceptions as Python exceptions.
#pragma once

#include "gil.hpp"
#include "python_api.hpp"

namespace vantrace {

/// Makes vantrace.NotLoadedError and vantrace.PluginError and adds them to the module.
void addErrors(PyObject* module);

/// Sets the Python exception that matches the C++ exception being handled, with the same text.
void setPythonError() noexcept;

/// Sets a Python exception, its text as PyErr_Format makes it, and throws PythonError.
[[noreturn]] void raise(PyObject* type, const char* format, ...);

/// Runs the body of a function that Python calls: exceptions become Python's, and the result null.
template <typename Body>
PyObject* guarded(Body body) noexcept {
    try {
        return body();
    } catch (abi::__forced_unwind&) {
        park();
    } catch (...) {
        setPythonError();
        return nullptr;
    }
}

/// The same for a body that gives a status: 0, or -1 for an exception.
template <typename Body>
int guardedStatus(Body body) noexcept {
    try {
        body();
        return 0;
    } catch (abi::__forced_unwind&) {
        park();
    } catch (...) {
        setPythonError();
        return -1;
    }
}

}  // namespace vantrace
