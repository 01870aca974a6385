#include "python_task.hpp"

#include <set>
#include <utility>

#include "../src/gil.hpp"
#include "../src/python_exception.hpp"

namespace vantrace {

namespace {

/// The tasks that have work, guarded by the interpreter's lock. Never destroyed, as some tasks are
/// not.
std::set<PythonTask*>& withWork() {
    alignas(std::set<PythonTask*>) static std::byte storage[sizeof(std::set<PythonTask*>)];
    static auto& tasks = *::new (storage) std::set<PythonTask*>;
    return tasks;
}

/// Closes a generator that nobody is inside of; its error is nobody's to handle. An exception that
/// is set already stays.
void closeGenerator(PyObject* generator) noexcept {
    const Ref isRunning = Ref::steal(PyObject_GetAttrString(generator, "gi_running"));
    if (isRunning.get() == Py_True)
        return;
    PyObject* current[3];
    PyErr_Fetch(&current[0], &current[1], &current[2]);
    if (!Ref::steal(PyObject_CallMethod(generator, "close", nullptr)))
        PyErr_WriteUnraisable(generator);
    PyErr_Restore(current[0], current[1], current[2]);
}

}  // namespace

PythonTask::PythonTask(std::string name, PyObject* work)
    : Task(std::move(name)), work_(Ref::share(work)) {
    withWork().insert(this);
}

PythonTask::~PythonTask() {
    if (isInterpreterUp())
        withLock([this] { close(); });
    else
        work_.release();
}

void PythonTask::closeAll() {
    while (!withWork().empty())
        (*withWork().begin())->close();
}

/// Lets go of the work.
void PythonTask::close() noexcept {
    withWork().erase(this);
    Ref work = std::move(work_);
    if (!work)
        return;
    // Another thread is in a step: as the interpreter ends, or where a fork cut it off. That frame
    // must not be taken down.
    if (isInStep_)
        work.release();
    else if (PyGen_Check(work.get()))
        closeGenerator(work.get());
}

bool PythonTask::step(Performance::CooperativeTaskManager::Deadline) {
    return isInterpreterUp() && withLock([this] { return stepUnderLock(); });
}

bool PythonTask::stepUnderLock() {
    // Nobody goes on with a step that a fork cut off.
    if (!work_ || isInStep_)
        return false;
    isInStep_ = true;
    const Ref work = Ref::share(work_.get());
    const bool more = advance();
    isInStep_ = false;
    if (PyErr_Occurred()) {
        close();
        throw PythonException::take(work.get());
    }
    if (!more)
        close();
    return more;
}

/// Runs Python code for one step; whether there is another. May leave an exception set.
bool PythonTask::advance() {
    const Ref work = Ref::share(work_.get());
    if (PyGen_Check(work.get()))
        return static_cast<bool>(Ref::steal(PyIter_Next(work.get())));
    Ref result = Ref::steal(PyObject_CallNoArgs(work.get()));
    if (!result || !PyGen_Check(result.get()))
        return false;
    work_ = std::move(result);
    return true;
}

}  // namespace vantrace
