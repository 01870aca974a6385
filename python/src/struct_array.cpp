#include "struct_array.hpp"

#include <algorithm>
#include <cstdint>
#include <new>
#include <optional>
#include <string>

#include "errors.hpp"
#include "text.hpp"

namespace vantrace {

namespace hx = matrix::hx;
using matrix::ClassId;

namespace {

/// Some elements of a struct array: every `step`-th from `first` on.
struct View {
    SharedArray array;
    Py_ssize_t first;
    Py_ssize_t step;
    Py_ssize_t count;

    std::size_t index(Py_ssize_t i) const { return static_cast<std::size_t>(first + i * step); }
    const hxArray* value(Py_ssize_t i, std::size_t field) const {
        return hx::hxGetFieldByNumber(array.get(), index(i), field);
    }
};

struct StructArrayObject {
    PyObject_HEAD View view;
};

// Immortal, as the module is.
PyObject* baseType = nullptr;
PyObject* publicType = nullptr;

const View& viewOf(PyObject* self) {
    return reinterpret_cast<StructArrayObject*>(self)->view;
}

Ref newView(View view) {
    if (!publicType)
        raise(PyExc_RuntimeError, "vantrace.host was not imported");
    PyTypeObject* type = asType(publicType);
    Ref object = Ref::take(type->tp_alloc(type, 0));
    new (&reinterpret_cast<StructArrayObject*>(object.get())->view) View(std::move(view));
    return object;
}

void deallocate(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    reinterpret_cast<StructArrayObject*>(self)->view.~View();
    type->tp_free(self);
    Py_DECREF(type);
}

std::size_t fieldNumber(const View& view, PyObject* name) {
    if (!PyUnicode_Check(name))
        raise(PyExc_TypeError, "field names are str, got %s", Py_TYPE(name)->tp_name);
    Ref owner;
    const std::ptrdiff_t number = hx::hxGetFieldNumber(view.array.get(), utf8Of(name, owner));
    if (number < 0) {
        PyErr_SetObject(PyExc_KeyError, name);
        throw PythonError();
    }
    return static_cast<std::size_t>(number);
}

/// The class of a field's values where all are scalars of it, else none.
std::optional<ClassId> scalarClass(const View& view, std::size_t field) {
    std::optional<ClassId> common;
    for (Py_ssize_t i = 0; i < view.count; ++i) {
        const hxArray* value = view.value(i, field);
        if (!value || hx::hxGetElementCount(value) != 1)
            return std::nullopt;
        const ClassId classId = hx::hxGetClassId(value);
        if (common.value_or(classId) != classId)
            return std::nullopt;
        common = classId;
    }
    return common;
}

/// The numbers of a field side by side in a bytes object, with the name of their NumPy type.
template <typename T>
Ref numbers(const View& view, std::size_t field, const char* numpyName) {
    const auto size = static_cast<Py_ssize_t>(sizeof(T)) * view.count;
    Ref bytes = Ref::take(PyBytes_FromStringAndSize(nullptr, size));
    T* out = reinterpret_cast<T*>(PyBytes_AS_STRING(bytes.get()));
    for (Py_ssize_t i = 0; i < view.count; ++i)
        out[i] = *static_cast<const T*>(hx::hxGetData(view.value(i, field)));
    return Ref::take(Py_BuildValue("(sN)", numpyName, bytes.release()));
}

Ref objects(const View& view, std::size_t field) {
    StrCache texts;
    Ref list = Ref::take(PyList_New(view.count));
    for (Py_ssize_t i = 0; i < view.count; ++i) {
        const hxArray* value = view.value(i, field);
        const bool isText = value && hx::hxGetClassId(value) == ClassId::character;
        Ref object = isText ? texts.strOf(hx::hxGetChars(value)) : fromArray(value, view.array);
        PyList_SET_ITEM(list.get(), i, object.release());
    }
    return Ref::take(Py_BuildValue("(sN)", "object", list.release()));
}

PyObject* column(PyObject* self, PyObject* name) {
    return guarded([&] {
        const View& view = viewOf(self);
        const std::size_t field = fieldNumber(view, name);
        const std::optional<ClassId> classId = scalarClass(view, field);
        if (classId == ClassId::real)
            return numbers<double>(view, field, "float64").release();
        if (classId == ClassId::uint64)
            return numbers<std::uint64_t>(view, field, "uint64").release();
        if (classId == ClassId::int32)
            return numbers<std::int32_t>(view, field, "int32").release();
        if (classId == ClassId::logical)
            return numbers<bool>(view, field, "bool").release();
        return objects(view, field).release();
    });
}

PyObject* element(PyObject* self, PyObject* position) {
    return guarded([&] {
        const View& view = viewOf(self);
        const Py_ssize_t i = PyLong_AsSsize_t(position);
        if (i == -1 && PyErr_Occurred())
            throw PythonError();
        if (i < 0 || i >= view.count)
            raise(PyExc_IndexError, "element %zd of %zd", i, view.count);
        Ref values = Ref::take(PyDict_New());
        for (std::size_t field = 0; field < hx::hxGetFieldCount(view.array.get()); ++field) {
            const Ref name = strOf(std::string_view(hx::hxGetFieldName(view.array.get(), field)));
            const Ref value = fromArray(view.value(i, field), view.array);
            check(PyDict_SetItem(values.get(), name.get(), value.get()));
        }
        return values.release();
    });
}

PyObject* part(PyObject* self, PyObject* arguments) {
    return guarded([&] {
        const View& view = viewOf(self);
        Py_ssize_t first = 0;
        Py_ssize_t step = 0;
        Py_ssize_t count = 0;
        if (!PyArg_ParseTuple(arguments, "nnn:_part", &first, &step, &count))
            throw PythonError();
        const Py_ssize_t last = first + (count - 1) * step;
        if (count < 0 ||
            (count > 0 && (std::min(first, last) < 0 || std::max(first, last) >= view.count)))
            raise(PyExc_IndexError, "a part beyond the %zd elements", view.count);
        return newView({view.array, view.first + first * view.step, view.step * step, count})
            .release();
    });
}

PyObject* shape(PyObject* self, void*) {
    const View& view = viewOf(self);
    const auto all = static_cast<Py_ssize_t>(hx::hxGetElementCount(view.array.get()));
    if (view.count != all)
        return Py_BuildValue("(nn)", Py_ssize_t{1}, view.count);
    return Py_BuildValue("(nn)", static_cast<Py_ssize_t>(hx::hxGetRows(view.array.get())),
                         static_cast<Py_ssize_t>(hx::hxGetColumns(view.array.get())));
}

PyObject* fields(PyObject* self, void*) {
    return guarded([&] {
        const hxArray* array = viewOf(self).array.get();
        const std::size_t count = hx::hxGetFieldCount(array);
        Ref names = Ref::take(PyTuple_New(static_cast<Py_ssize_t>(count)));
        for (std::size_t i = 0; i < count; ++i) {
            Ref name = strOf(std::string_view(hx::hxGetFieldName(array, i)));
            PyTuple_SET_ITEM(names.get(), static_cast<Py_ssize_t>(i), name.release());
        }
        return names.release();
    });
}

Py_ssize_t length(PyObject* self) {
    return viewOf(self).count;
}

PyMethodDef methods[] = {
    {"_column", column, METH_O, "The values of a field: (NumPy type, bytes or list)."},
    {"_element", element, METH_O, "One element as a dict."},
    {"_part", part, METH_VARARGS, "The elements from a first one on: (first, step, count)."},
    {nullptr, nullptr, 0, nullptr},
};

PyGetSetDef properties[] = {
    {"shape", shape, nullptr, "Rows and columns.", nullptr},
    {"fields", fields, nullptr, "The names of the fields, in order.", nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyType_Slot slots[] = {
    {Py_tp_dealloc, asSlot(deallocate)},
    {Py_tp_methods, methods},
    {Py_tp_getset, properties},
    {Py_sq_length, asSlot(length)},
    {0, nullptr},
};

PyType_Spec spec = {"vantrace._core.StructArrayBase", sizeof(StructArrayObject), 0,
                    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_DISALLOW_INSTANTIATION,
                    slots};

}  // namespace

void addStructArray(PyObject* module) {
    baseType = Ref::take(PyType_FromSpec(&spec)).release();
    check(PyModule_AddObjectRef(module, "StructArrayBase", baseType));
}

PyObject* setStructArray(PyObject*, PyObject* type) {
    return guarded([&] {
        if (!PyType_Check(type) || !PyType_IsSubtype(asType(type), asType(baseType)))
            raise(PyExc_TypeError, "set_struct_array takes a subclass of StructArrayBase");
        Py_XDECREF(std::exchange(publicType, Py_NewRef(type)));
        return Py_NewRef(Py_None);
    });
}

Ref newStructArray(SharedArray array) {
    const auto count = static_cast<Py_ssize_t>(hx::hxGetElementCount(array.get()));
    return newView({std::move(array), 0, 1, count});
}

}  // namespace vantrace
