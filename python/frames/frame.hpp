// CPython 3.11's frames, as its evaluator takes them.
#pragma once

#include "../src/python_api.hpp"

#if PY_VERSION_HEX < 0x030b0000 || PY_VERSION_HEX >= 0x030c0000
#error "this module knows the frames of CPython 3.11 only"
#endif

#define Py_BUILD_CORE 1
#include <internal/pycore_frame.h>
#undef Py_BUILD_CORE

namespace vantrace {

using Frame = _PyInterpreterFrame;

}  // namespace vantrace
