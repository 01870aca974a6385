// Plug-ins and the namespaces that they publish, as Python objects.
#pragma once

#include "python_api.hpp"

namespace vantrace {

/// Makes the types vantrace._core.Plugin and NamespaceHandle and adds them to the module.
void addPlugins(PyObject* module);

// Functions of the module.
PyObject* loadPlugin(PyObject* module, PyObject* path);
PyObject* listRoots(PyObject* module, PyObject*);
PyObject* findRootNamespace(PyObject* module, PyObject* name);
/// Private methods too.
PyObject* resolveMethod(PyObject* module, PyObject* fullName);
/// The folder of the host's libraries, where plug-ins stand as well.
PyObject* libraryFolder(PyObject* module, PyObject*);

}  // namespace vantrace
