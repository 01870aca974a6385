#include "gil.hpp"

#include <pthread.h>
#include <unistd.h>

#include <atomic>

#include "zandor/instrument/leave_listeners.hpp"

namespace vantrace {

namespace {

/// How many sections without the lock run in the process, and how many of them this thread is in.
constinit std::atomic<int> running{0};
constinit thread_local int runningHere = 0;

/// Whether somebody waits for `running`. Both are sequentially consistent: whoever ends a section
/// after the look at `running` sees that it is awaited.
constinit std::atomic<bool> isAwaited{false};

void endSections(int count) noexcept {
    runningHere -= count;
    running.fetch_sub(count);
    if (isAwaited.load())
        running.notify_all();
}

/// Runs when the interpreter is gone, before destructors of static objects do, the plug-in's among
/// them: no call of a thread that nobody joins may be among those objects then.
void awaitSections() {
    isAwaited.store(true);
    for (int count = running.load(); count > 0; count = running.load())
        running.wait(count);
}

/// The child of a fork has one thread.
void recountSections() {
    running.store(runningHere);
}

}  // namespace

void awaitSectionsAtExit() {
    Py_AtExit(awaitSections);
    pthread_atfork(nullptr, nullptr, recountSections);
}

void dropReference(PyObject* object) noexcept {
    if (_Py_IsFinalizing() && !PyGILState_Check()) [[unlikely]]
        return;
    intoPython([object] { Py_DECREF(object); });
}

void park() noexcept {
    // Destructors of listeners run at the end of the process, and would wait for this thread.
    instrument::leaveListeners();
    endSections(runningHere);
    for (;;)
        pause();
}

GilRelease::GilRelease() noexcept {
    ++runningHere;
    running.fetch_add(1);
    state_ = PyEval_SaveThread();
}

GilRelease::~GilRelease() {
    endSections(1);
    intoPython([this] { PyEval_RestoreThread(state_); });
}

bool isInterpreterUp() noexcept {
    return Py_IsInitialized() && !_Py_IsFinalizing();
}

}  // namespace vantrace
