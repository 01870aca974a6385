// Published methods as callable Python objects.
#pragma once

#include "python_api.hpp"
#include "zandor/runtime/zandor.hpp"

namespace vantrace {

/// Makes the type vantrace._core.Method and adds it to the module.
void addMethod(PyObject* module);

Ref newMethod(zandor::Method method);

}  // namespace vantrace
