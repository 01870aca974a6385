#include "task_name.hpp"

#include "../src/errors.hpp"
#include "../src/kept_error.hpp"

namespace vantrace {

namespace {

/// What asyncio tells tasks by; null until the program imported it. Immortal.
struct Asyncio {
    PyObject* runningLoop = nullptr;
    PyObject* currentTasks = nullptr;
};
constinit Asyncio asyncio;

Ref attributeOf(const char* module, const char* name) {
    PyObject* found = PyDict_GetItemString(PyImport_GetModuleDict(), module);
    if (!found)
        return Ref();
    return Ref::steal(PyObject_GetAttrString(found, name));
}

bool findAsyncio() {
    if (asyncio.currentTasks) [[likely]]
        return true;
    Ref loop = attributeOf("asyncio.events", "_get_running_loop");
    Ref tasks = attributeOf("asyncio.tasks", "_current_tasks");
    if (!loop || !tasks || !PyDict_Check(tasks.get()))
        return false;
    asyncio = {loop.release(), tasks.release()};
    return true;
}

Ref findName() {
    if (!findAsyncio())
        return Ref();
    const Ref loop = Ref::take(PyObject_CallNoArgs(asyncio.runningLoop));
    if (loop.get() == Py_None)
        return Ref();
    PyObject* task = PyDict_GetItemWithError(asyncio.currentTasks, loop.get());
    if (!task)
        return Ref();
    Ref name = Ref::take(PyObject_CallMethod(task, "get_name", nullptr));
    return PyUnicode_Check(name.get()) ? std::move(name) : Ref();
}

}  // namespace

Ref currentTaskName() noexcept {
    const KeptError error;
    Ref name;
    guardedStatus([&] { name = findName(); });
    return name;
}

}  // namespace vantrace
