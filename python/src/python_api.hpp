// CPython's C interface, with the few tools that every file of the module needs.
#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <utility>

namespace vantrace {

/// Thrown when a Python exception is set: the boundary leaves that one in place.
struct PythonError {};

/// Gives a reference back. A thread that was ended because the interpreter finalizes has lost the
/// interpreter's lock by the time its objects are destroyed: its references stay.
void dropReference(PyObject* object) noexcept;

/// An owned reference.
class Ref {
  public:
    Ref() noexcept = default;
    static Ref steal(PyObject* object) noexcept { return Ref(object); }
    static Ref share(PyObject* object) noexcept { return Ref(Py_XNewRef(object)); }
    /// Takes over a new reference that a call gave; null means that it failed.
    static Ref take(PyObject* object) {
        if (!object)
            throw PythonError();
        return Ref(object);
    }
    Ref(Ref&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    Ref& operator=(Ref&& other) noexcept {
        std::swap(object_, other.object_);
        return *this;
    }
    ~Ref() {
        if (object_)
            dropReference(object_);
    }

    PyObject* get() const noexcept { return object_; }
    PyObject* release() noexcept { return std::exchange(object_, nullptr); }
    explicit operator bool() const noexcept { return object_ != nullptr; }

  private:
    explicit Ref(PyObject* object) noexcept : object_(object) {}
    PyObject* object_ = nullptr;
};

/// Throws when a call that gives 0 on success did not.
inline void check(int status) {
    if (status < 0)
        throw PythonError();
}

/// A function of another signature, as the tables of methods take it.
template <typename Function>
PyCFunction asCFunction(Function* function) noexcept {
    return reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(function));
}

/// The same for the slots of a type.
template <typename Function>
void* asSlot(Function* function) noexcept {
    return reinterpret_cast<void*>(function);
}

inline PyTypeObject* asType(PyObject* type) noexcept {
    return reinterpret_cast<PyTypeObject*>(type);
}

}  // namespace vantrace
