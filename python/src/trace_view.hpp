// Trace files to look at, as Python objects.
#pragma once

#include "python_api.hpp"

namespace vantrace {

/// Makes the type vantrace._core.TraceView and adds it to the module.
void addTraceView(PyObject* module);

}  // namespace vantrace
