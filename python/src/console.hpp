// The host's console output goes to Python's sys.stdout.
#pragma once

#include "python_api.hpp"

namespace vantrace {

/// Has the host's texts written to sys.stdout as it stands at that moment, and to file descriptor 1
/// once the interpreter is gone.
void installConsoleSink() noexcept;

/// From now on it is sys.stderr, and descriptor 2.
PyObject* directConsoleToErrors(PyObject*, PyObject*);

}  // namespace vantrace
