// The base of vantrace.StructArray: a struct array of the host, read column by column.
#pragma once

#include "from_value.hpp"
#include "python_api.hpp"

namespace vantrace {

/// Makes the type and adds it to the module.
void addStructArray(PyObject* module);

/// A vantrace.StructArray of all elements of a struct array.
Ref newStructArray(SharedArray array);

}  // namespace vantrace
