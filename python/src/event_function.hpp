// Functions that an event decorates.
#pragma once

#include "python_api.hpp"

namespace vantrace {

void addEventFunction(PyObject* module);

/// The function, each call of which is the event. Functions that suspend (generators, coroutines)
/// are wrapped by Python code, which holds the event open from their first step to their last.
Ref decorate(PyObject* event, PyObject* function);

/// event_function(event, function): the plain form.
PyObject* newEventFunction(PyObject* module, PyObject* arguments);

/// wrapped_function(event, function): one that stands in for the function wherever it is looked up,
/// with its attributes and, for isinstance(), its type.
PyObject* newWrappedFunction(PyObject* module, PyObject* arguments);

}  // namespace vantrace
