// A Python exception on its way through C++ frames.
#pragma once

#include <memory>
#include <stdexcept>

#include "python_api.hpp"

namespace vantrace {

/// Carries what Python code raised to whoever called the C++ code that ran it: Python's boundary
/// sets it again, others see a std::runtime_error. One that nobody set again goes to
/// sys.unraisablehook when its last copy dies. Copies and dies without the interpreter's lock.
class PythonException : public std::runtime_error {
  public:
    /// Takes the exception that is set, which came from `source`. Needs the lock.
    static PythonException take(PyObject* source);

    /// Sets it again. Needs the lock.
    void restore() const noexcept;

  private:
    struct Kept;

    PythonException(const char* type, std::shared_ptr<Kept> kept);

    std::shared_ptr<Kept> kept_;
};

}  // namespace vantrace
