#include "gil.hpp"

#include <pthread.h>
#include <unistd.h>

#include <atomic>

#include "zandor/instrument/leave_listeners.hpp"

namespace vantrace {

namespace {

/// How many sections without the lock run in the process, and how many of them this thread is in.
/// The latter is there with the thread: made at its first use, want of memory would end the
/// process.
constinit std::atomic<int> running{0};
constinit thread_local int runningHere [[gnu::tls_model("initial-exec")]] = 0;

/// Whether somebody waits for `running`. Both are sequentially consistent: whoever ends a section
/// after the look at `running` sees that it is awaited.
constinit std::atomic<bool> isAwaited{false};

void enterSections(int count) noexcept {
    runningHere += count;
    running.fetch_add(count);
}

void leaveSections(int count) noexcept {
    runningHere -= count;
    running.fetch_sub(count);
    if (isAwaited.load())
        running.notify_all();
}

int leaveAllSections() noexcept {
    const int left = runningHere;
    leaveSections(left);
    return left;
}

/// Each module of the package has this code; a thread may be inside several of them at once.
struct Counting {
    void (*enter)(int count) noexcept;
    void (*leave)(int count) noexcept;
    int (*leaveAll)() noexcept;
};

constinit const Counting countingHere{enterSections, leaveSections, leaveAllSections};
constinit const Counting* counting = &countingHere;
constexpr char countingName[] = "vantrace._core._sections";

/// Runs when the interpreter is gone, before destructors of static objects do, the plug-in's among
/// them: no call of a thread that nobody joins may be among those objects then.
void awaitSections() {
    isAwaited.store(true);
    for (int count = running.load(); count > 0; count = running.load())
        running.wait(count);
}

/// Whether the interpreter ended this thread, or is gone: it has the lock no more, and gets it no
/// more. Late in its end the interpreter forgets its threads, and takes each for the lock's holder.
bool isLockLost() noexcept {
    return _Py_IsFinalizing() && (!PyGILState_GetThisThreadState() || !PyGILState_Check());
}

/// The child of a fork has one thread.
void recountSections() {
    running.store(runningHere);
}

}  // namespace

void awaitSectionsAtExit(PyObject* core) {
    const Ref capsule =
        Ref::take(PyCapsule_New(const_cast<Counting*>(&countingHere), countingName, nullptr));
    check(PyModule_AddObjectRef(core, "_sections", capsule.get()));
    Py_AtExit(awaitSections);
    pthread_atfork(nullptr, nullptr, recountSections);
}

void shareSections() {
    const void* shared = PyCapsule_Import(countingName, 0);
    if (!shared)
        throw PythonError();
    counting = static_cast<const Counting*>(shared);
}

void dropReference(PyObject* object) noexcept {
    if (isLockLost()) [[unlikely]]
        return;
    intoPython([object] { Py_DECREF(object); });
}

void park() noexcept {
    // Destructors of listeners run at the end of the process, and would wait for this thread.
    instrument::leaveListeners();
    counting->leaveAll();
    for (;;)
        pause();
}

GilRelease::GilRelease() noexcept {
    counting->enter(1);
    state_ = PyEval_SaveThread();
}

GilRelease::~GilRelease() {
    counting->leave(1);
    intoPython([this] { PyEval_RestoreThread(state_); });
}

GilHold::GilHold() : state_(PyGILState_Ensure()), sections_(counting->leaveAll()) {}

GilHold::~GilHold() {
    if (isLockLost())
        return;
    counting->enter(sections_);
    PyGILState_Release(state_);
}

bool isInterpreterUp() noexcept {
    return Py_IsInitialized() && !_Py_IsFinalizing();
}

}  // namespace vantrace
