// The Python exception that is set, out of the way of code that must not meet it.
#pragma once

#include "python_api.hpp"

namespace vantrace {

/// Takes it, and sets it again in the end; whatever was set meanwhile goes.
class KeptError {
  public:
    KeptError() noexcept { PyErr_Fetch(&type_, &value_, &traceback_); }
    ~KeptError() { PyErr_Restore(type_, value_, traceback_); }
    KeptError(const KeptError&) = delete;
    KeptError& operator=(const KeptError&) = delete;

  private:
    PyObject* type_ = nullptr;
    PyObject* value_ = nullptr;
    PyObject* traceback_ = nullptr;
};

}  // namespace vantrace
