// vantrace.counter.
#pragma once

#include "python_api.hpp"

namespace vantrace {

/// counter(name, value, /)
PyObject* emitCounter(PyObject* module, PyObject* const* arguments, Py_ssize_t count);

}  // namespace vantrace
