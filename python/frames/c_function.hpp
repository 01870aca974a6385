// The instruments of C functions.
#pragma once

#include "../src/python_api.hpp"
#include "zandor/instrument/control_element.hpp"

namespace vantrace {

/// "module.name" or "type.name"; null where the present session does not record it.
const instrument::Opaque* instrumentOf(const PyCFunctionObject* function);

}  // namespace vantrace
