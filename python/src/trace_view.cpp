#include "trace_view.hpp"

#include <memory>
#include <string>

#include "errors.hpp"
#include "export_file.hpp"
#include "handle_object.hpp"
#include "text.hpp"
#include "zandor/instrument/trace_view.hpp"

namespace vantrace {

using instrument::TraceView;

namespace {

using ViewObject = HandleObject<std::unique_ptr<TraceView>>;

TraceView& viewOf(PyObject* self) {
    return *ViewObject::of(self);
}

PyObject* create(PyTypeObject* type, PyObject* arguments, PyObject*) {
    return guarded([&] {
        PyObject* path = nullptr;
        if (!PyArg_ParseTuple(arguments, "O:TraceView", &path))
            throw PythonError();
        const std::filesystem::path file = pathArgument(path);
        try {
            auto view = withoutLock([&] { return std::make_unique<TraceView>(file); });
            return ViewObject::make(reinterpret_cast<PyObject*>(type), std::move(view)).release();
        } catch (const std::system_error& error) {
            throw std::filesystem::filesystem_error(error.what(), file, error.code());
        }
    });
}

/// The answer to a question, asked without the lock.
template <typename Ask>
PyObject* answer(Ask ask) {
    const std::string text = withoutLock(ask);
    return strOf(std::string_view(text)).release();
}

PyObject* read(PyObject* self, PyObject*) {
    return guarded([&] {
        withoutLock([&] { viewOf(self).read(); });
        return Py_NewRef(Py_None);
    });
}

PyObject* stop(PyObject* self, PyObject*) {
    viewOf(self).stop();
    return Py_NewRef(Py_None);
}

PyObject* state(PyObject* self, PyObject*) {
    return guarded([&] { return answer([&] { return viewOf(self).state(); }); });
}

PyObject* activity(PyObject* self, PyObject*) {
    return guarded([&] { return answer([&] { return viewOf(self).activity(); }); });
}

PyObject* threads(PyObject* self, PyObject*) {
    return guarded([&] { return answer([&] { return viewOf(self).threads(); }); });
}

PyObject* window(PyObject* self, PyObject* arguments) {
    return guarded([&] {
        long long begin = 0, end = 0;
        unsigned pixels = 0, first = 0, last = 0;
        if (!PyArg_ParseTuple(arguments, "LLIII:window", &begin, &end, &pixels, &first, &last))
            throw PythonError();
        return answer([&] { return viewOf(self).window(begin, end, pixels, first, last); });
    });
}

PyObject* flame(PyObject* self, PyObject* arguments) {
    return guarded([&] {
        long long begin = 0, end = 0;
        if (!PyArg_ParseTuple(arguments, "LL:flame", &begin, &end))
            throw PythonError();
        return answer([&] { return viewOf(self).flame(begin, end); });
    });
}

PyObject* find(PyObject* self, PyObject* arguments) {
    return guarded([&] {
        const char* text = nullptr;
        Py_ssize_t length = 0;
        long long start = 0, duration = 0;
        unsigned thread = 0;
        unsigned long long serial = 0;
        int isForward = 1;
        if (!PyArg_ParseTuple(arguments, "s#LLIKp:find", &text, &length, &start, &duration, &thread,
                              &serial, &isForward))
            throw PythonError();
        const std::string wanted(text, static_cast<std::size_t>(length));
        return answer([&] {
            return viewOf(self).find(wanted, {start, duration, thread, serial}, isForward != 0);
        });
    });
}

PyObject* details(PyObject* self, PyObject* arguments) {
    return guarded([&] {
        long long start = 0;
        unsigned thread = 0;
        unsigned long long serial = 0;
        if (!PyArg_ParseTuple(arguments, "LIK:details", &start, &thread, &serial))
            throw PythonError();
        return answer([&] { return viewOf(self).details({start, 0, thread, serial}); });
    });
}

PyMethodDef methods[] = {
    {"read", read, METH_NOARGS, "Reads the whole file, once; questions are answered meanwhile."},
    {"stop", stop, METH_NOARGS, "Has read() return soon."},
    {"state", state, METH_NOARGS, "How far reading is, and what is known of the whole."},
    {"activity", activity, METH_NOARGS, "When each thread wrote; known at once."},
    {"threads", threads, METH_NOARGS, "The threads, and how many rows each has."},
    {"window", window, METH_VARARGS,
     "window(begin, end, pixels, first_thread, last_thread): the slices of a part of the time."},
    {"flame", flame, METH_VARARGS, "flame(begin, end): the stacks of a part of the time."},
    {"find", find, METH_VARARGS,
     "find(text, start, duration, thread, serial, forward): the next event of such a name."},
    {"details", details, METH_VARARGS, "details(start, thread, serial): all about an event."},
    {nullptr, nullptr, 0, nullptr},
};

PyType_Slot slots[] = {
    {Py_tp_doc, const_cast<char*>("TraceView(path)\n--\n\nA trace file to look at, as much of it "
                                  "at once as a screen holds. Answers are JSON; it may be asked "
                                  "from any thread.")},
    {Py_tp_new, asSlot(create)},
    {Py_tp_dealloc, asSlot(ViewObject::deallocate)},
    {Py_tp_methods, methods},
    {0, nullptr},
};

PyType_Spec spec = {"vantrace._core.TraceView", sizeof(ViewObject), 0, Py_TPFLAGS_DEFAULT, slots};

}  // namespace

void addTraceView(PyObject* module) {
    const Ref type = Ref::take(PyType_FromSpec(&spec));
    check(PyModule_AddObjectRef(module, "TraceView", type.get()));
}

}  // namespace vantrace
