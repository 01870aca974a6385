// The base of vantrace.StructArray: a struct array of the host, read column by column.
#pragma once

#include "from_value.hpp"
#include "python_api.hpp"

namespace vantrace {

/// Makes the type and adds it to the module.
void addStructArray(PyObject* module);

/// Function of the module: names the class that struct arrays become, a subclass of that type.
PyObject* setStructArray(PyObject* module, PyObject* type);

/// A vantrace.StructArray of all elements of a struct array.
Ref newStructArray(SharedArray array);

}  // namespace vantrace
