// Trace files as Python objects.
#pragma once

#include "python_api.hpp"

namespace vantrace {

/// Makes the type vantrace._core.Trace and adds it to the module.
void addTrace(PyObject* module);

// Functions of the module.
PyObject* finishRunFolder(PyObject* module, PyObject* arguments);
PyObject* combineTraces(PyObject* module, PyObject* arguments);

}  // namespace vantrace
