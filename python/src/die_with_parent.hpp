// Ends a child together with the process that looks after it.
#pragma once

#include "python_api.hpp"

namespace vantrace {

/// die_with_parent(parent): has this process be killed when `parent`, which made it, ends.
PyObject* dieWithParent(PyObject* module, PyObject* parent);

}  // namespace vantrace
