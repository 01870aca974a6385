// vantrace.event and vantrace.instant.
//
//   with vantrace.event("solve", n=512): ...
//   @vantrace.event("assemble")
//   def assemble(): ...
//   vantrace.instant("converged", residual=1e-9)
//
// An event object is both the context manager and the callable that the with statement enters and
// leaves it by, which spares two bound methods each time: its __enter__ and __exit__ are the event
// itself, which tells what is meant by the number of arguments (none: enter; three: leave; one:
// decorate).
#pragma once

#include "python_api.hpp"
#include "zandor/instrument/control_element.hpp"

namespace vantrace {

/// Makes the types vantrace.event and vantrace._core.EventFunction and adds them to the module.
void addEvents(PyObject* module);

/// instant(name, /, **context)
PyObject* emitInstant(PyObject* module, PyObject* const* arguments, Py_ssize_t count,
                      PyObject* names);

/// The instrument of an event, and its context as given: values, and the tuple of their names or
/// null.
struct EventParts {
    const instrument::Opaque* instrument;
    PyObject* const* values;
    PyObject* names;
};
EventParts partsOf(PyObject* event) noexcept;
bool isEvent(PyObject* object) noexcept;

}  // namespace vantrace
