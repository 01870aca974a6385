// A Python object around one C++ handle.
#pragma once

#include <new>
#include <utility>

#include "python_api.hpp"

namespace vantrace {

template <typename Handle>
struct HandleObject {
    PyObject_HEAD Handle handle;

    static Handle& of(PyObject* self) noexcept {
        return reinterpret_cast<HandleObject*>(self)->handle;
    }

    static Ref make(PyObject* type, Handle handle) {
        Ref object = Ref::take(asType(type)->tp_alloc(asType(type), 0));
        new (&of(object.get())) Handle(std::move(handle));
        return object;
    }

    static void deallocate(PyObject* self) {
        PyTypeObject* type = Py_TYPE(self);
        of(self).~Handle();
        type->tp_free(self);
        Py_DECREF(type);
    }
};

}  // namespace vantrace
