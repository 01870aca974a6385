// A recorder of its own for vantrace.record.
#pragma once

#include "python_api.hpp"

namespace vantrace {

/// Makes the type vantrace._core.Recorder and adds it to the module.
void addRecorder(PyObject* module);

}  // namespace vantrace
