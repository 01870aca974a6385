// The instruments of Python's event names.
#pragma once

#include "python_api.hpp"
#include "zandor/instrument/control_element.hpp"

namespace vantrace {

/// A name that is kept alive, so that no other object can have its address.
struct KnownName {
    PyObject* name;
    const instrument::Opaque* instrument;
    PyObject* spare;  ///< an event of this name, for its next use; or null
};

/// What is known of a name, until the next one is looked up. Null where it is not known by its
/// address: names that the interpreter interned, as those in source code are, mostly are.
KnownName* knownName(PyObject* name) noexcept;

/// The instrument of a name, registered if it was not. Throws PythonError with a TypeError for what
/// is no str, std::invalid_argument for a name with a NUL inside.
const instrument::Opaque* instrumentOf(PyObject* name);

}  // namespace vantrace
