// The compiled module vantrace._sampler: which lines the interpreter's threads spend their time in.
//
//   vantrace/_lines.py -> _sampler -> the interpreter's memory
//
// It knows the frames of one version of the interpreter, and is not built for others.
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <span>

#include "../src/errors.hpp"
#include "../src/export_file.hpp"
#include "../src/handle_object.hpp"
#include "../src/python_api.hpp"
#include "../src/text.hpp"
#include "line_table.hpp"
#include "sampler.hpp"

namespace vantrace {

namespace {

using SamplerPointer = std::unique_ptr<Sampler, void (*)(Sampler*)>;
using SamplerObject = HandleObject<SamplerPointer>;

void drop(Sampler* sampler) {
    sampler->stop();
    if (sampler->isOurs())
        delete sampler;
}

Sampler& samplerOf(PyObject* self) {
    return *SamplerObject::of(self);
}

std::string textOf(PyObject* str) {
    Ref owner;
    return std::string(utf8Of(str, owner));
}

Selection selectionOf(PyObject* own, PyObject* libraries, bool withLibraries) {
    Selection selection;
    selection.own = textOf(own);
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(libraries); ++i) {
        PyObject* const folder = PyTuple_GET_ITEM(libraries, i);
        if (!PyUnicode_Check(folder))
            raise(PyExc_TypeError, "a folder must be str, not %s", Py_TYPE(folder)->tp_name);
        selection.libraries.push_back(textOf(folder));
    }
    selection.withLibraries = withLibraries;
    return selection;
}

PyObject* create(PyTypeObject* type, PyObject* arguments, PyObject*) {
    return guarded([&] {
        PyObject* own = nullptr;
        PyObject* libraries = nullptr;
        PyObject* folder = nullptr;
        int withLibraries = 0;
        if (!PyArg_ParseTuple(arguments, "UO!pO:Sampler", &own, &PyTuple_Type, &libraries,
                              &withLibraries, &folder))
            throw PythonError();
        std::optional<std::filesystem::path> path;
        if (folder != Py_None)
            path = pathArgument(folder);
        SamplerPointer sampler(new Sampler(selectionOf(own, libraries, withLibraries != 0), path),
                               drop);
        return SamplerObject::make(reinterpret_cast<PyObject*>(type), std::move(sampler)).release();
    });
}

PyObject* stop(PyObject* self, PyObject*) {
    return guarded([&] {
        withoutLock([&] { samplerOf(self).stop(); });
        return Py_NewRef(Py_None);
    });
}

PyObject* stream(PyObject* self, PyObject*) {
    return guarded([&] {
        const auto bytes = samplerOf(self).stream();
        return Ref::take(PyBytes_FromStringAndSize(reinterpret_cast<const char*>(bytes.data()),
                                                   static_cast<Py_ssize_t>(bytes.size())))
            .release();
    });
}

PyObject* file(PyObject* self, void*) {
    return guarded([&] {
        const auto path = samplerOf(self).file();
        return path ? PyUnicode_DecodeFSDefault(path->c_str()) : Py_NewRef(Py_None);
    });
}

PyObject* isWhole(PyObject* self, void*) {
    return PyBool_FromLong(samplerOf(self).isWhole());
}

PyObject* lineOfInstruction(PyObject*, PyObject* arguments) {
    const char* table = nullptr;
    Py_ssize_t size = 0;
    int firstLine = 0;
    Py_ssize_t offset = 0;
    if (!PyArg_ParseTuple(arguments, "y#in:line_at", &table, &size, &firstLine, &offset))
        return nullptr;
    const std::span bytes(table, static_cast<std::size_t>(size));
    return PyLong_FromLong(
        lineAt(std::as_bytes(bytes), firstLine, static_cast<std::size_t>(offset)));
}

PyObject* checkReadable(PyObject*, PyObject*) {
    return guarded([] {
        checkMemoryIsReadable();
        return Py_NewRef(Py_None);
    });
}

PyMethodDef functions[] = {
    {"check_readable", checkReadable, METH_NOARGS,
     "Raises OSError where the system does not let a process read its own memory by a call."},
    {"line_at", lineOfInstruction, METH_VARARGS,
     "line_at(table, first_line, offset): the line by a code object's table; 0 where there is "
     "none."},
    {nullptr, nullptr, 0, nullptr},
};

PyMethodDef methods[] = {
    {"stop", stop, METH_NOARGS, "Ends it; does nothing the second time, or in a child after fork."},
    {"stream", stream, METH_NOARGS, "What it found, once it ended, where that is in no file."},
    {nullptr, nullptr, 0, nullptr},
};

PyGetSetDef properties[] = {
    {"file", file, nullptr, "Where it puts what it finds; None: nowhere.", nullptr},
    {"is_whole", isWhole, nullptr, "Whether there was room for all, once it ended.", nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyType_Slot slots[] = {
    {Py_tp_doc, const_cast<char*>("Sampler(own, libraries, with_libraries, folder)\n--\n\n"
                                  "Samples lines from now on, in a thread of its own.")},
    {Py_tp_new, asSlot(create)},
    {Py_tp_dealloc, asSlot(SamplerObject::deallocate)},
    {Py_tp_methods, methods},
    {Py_tp_getset, properties},
    {0, nullptr},
};

PyType_Spec spec = {"vantrace._sampler.Sampler", sizeof(SamplerObject), 0, Py_TPFLAGS_DEFAULT,
                    slots};

PyModuleDef definition = {
    PyModuleDef_HEAD_INIT, "_sampler", nullptr, -1, functions, nullptr, nullptr, nullptr, nullptr};

PyObject* makeModule() {
    Ref module = Ref::take(PyModule_Create(&definition));
    shareSections();
    const Ref type = Ref::take(PyType_FromSpec(&spec));
    check(PyModule_AddObjectRef(module.get(), "Sampler", type.get()));
    return module.release();
}

}  // namespace

}  // namespace vantrace

PyMODINIT_FUNC PyInit__sampler() {
    return vantrace::guarded(vantrace::makeModule);
}
