// The compiled module vantrace._tasks: Python work for the cooperative task manager.
//
//   vantrace/tasks.py -> _tasks: python_task, idle -> zandor::performance
//
// Apart from _core because of what the performance library brings with it. There is one for the
// life of the process.
#include <memory>
#include <string>

#include "../src/errors.hpp"
#include "../src/gil.hpp"
#include "../src/python_api.hpp"
#include "../src/text.hpp"
#include "idle.hpp"
#include "python_task.hpp"

namespace vantrace {

namespace manager = Performance::CooperativeTaskManager;

namespace {

PyObject* add(PyObject*, PyObject* arguments) {
    return guarded([&] {
        PyObject* work = nullptr;
        PyObject* name = nullptr;
        int isPpe = 0;
        if (!PyArg_ParseTuple(arguments, "OUp:add", &work, &name, &isPpe))
            throw PythonError();
        Ref owner;
        auto task = std::make_shared<PythonTask>(std::string(utf8Of(name, owner)), work);
        (isPpe ? manager::ppe() : manager::instance())->add(std::move(task));
        return Py_NewRef(Py_None);
    });
}

PyObject* closeAll(PyObject*, PyObject*) {
    return guarded([] {
        PythonTask::closeAll();
        return Py_NewRef(Py_None);
    });
}

PyObject* runSliceOfBoth(PyObject*, PyObject*) {
    return guarded([] { return PyBool_FromLong(withoutLock(runIdleSlice)); });
}

PyMethodDef functions[] = {
    {"add", add, METH_VARARGS, "add(work, name, is_ppe): puts a task into a session."},
    {"close_all", closeAll, METH_NOARGS, "Closes the generators of all tasks."},
    {"run_idle_slice", runSliceOfBoth, METH_NOARGS,
     "Runs tasks for a moment; whether there is more to do at once."},
    {nullptr, nullptr, 0, nullptr},
};

PyModuleDef definition = {
    PyModuleDef_HEAD_INIT, "_tasks", nullptr, -1, functions, nullptr, nullptr, nullptr, nullptr};

PyObject* makeModule() {
    Ref module = Ref::take(PyModule_Create(&definition));
    shareSections();
    installInputHook();
    return module.release();
}

}  // namespace

}  // namespace vantrace

PyMODINIT_FUNC PyInit__tasks() {
    return vantrace::guarded(vantrace::makeModule);
}
