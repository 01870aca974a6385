// The instruments of Python's event names.
#pragma once

#include "python_api.hpp"
#include "zandor/instrument/control_element.hpp"

namespace vantrace {

/// The instrument of a name, registered if it was not. Throws PythonError with a TypeError for what
/// is no str, std::invalid_argument for a name with a NUL inside. Names that the interpreter
/// interned, as those in source code are, are found by their address.
const instrument::Opaque* instrumentOf(PyObject* name);

}  // namespace vantrace
