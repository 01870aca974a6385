// The interpreter's lock: letting go of it, taking it back, and what happens when the interpreter
// finalizes meanwhile.
//
// A thread that comes back to an interpreter which has begun to finalize is ended by unwinding its
// whole stack. Host frames on it cannot be unwound, and objects must not be released without the
// lock. So every such unwinding that would pass frames of ours is parked here: the thread waits for
// the end of the process, holding no lock.
#pragma once

#include <cxxabi.h>

#include "python_api.hpp"

namespace vantrace {

/// Never returns.
[[noreturn]] void park() noexcept;

/// Has the end of the process wait for what runs without the lock then. Once, at import of _core,
/// which counts for all modules of the package.
void awaitSectionsAtExit(PyObject* core);
/// Has this module's threads counted by _core, where one of them may be inside a section of it.
void shareSections();

/// Calls into the interpreter where other threads may get its lock.
template <typename Call>
[[gnu::always_inline]] inline auto intoPython(Call call) -> decltype(call()) {
    try {
        return call();
    } catch (abi::__forced_unwind&) {
        park();
    }
}

/// Takes the lock, whether the thread has it already or not. The process may end under it: who
/// waits inside Python code for good never comes back to ours.
class GilHold {
  public:
    GilHold();
    ~GilHold();
    GilHold(const GilHold&) = delete;
    GilHold& operator=(const GilHold&) = delete;

  private:
    PyGILState_STATE state_;
    int sections_;
};

/// Calls into the interpreter from any thread.
template <typename Call>
auto withLock(Call call) -> decltype(call()) {
    return intoPython([&] {
        const GilHold lock;
        return call();
    });
}

/// Lets other threads run for as long as it lives. The process does not end under it.
class GilRelease {
  public:
    GilRelease() noexcept;
    ~GilRelease();
    GilRelease(const GilRelease&) = delete;
    GilRelease& operator=(const GilRelease&) = delete;

  private:
    PyThreadState* state_;
};

/// Runs what may wait for other threads, or take long.
template <typename Call>
auto withoutLock(Call call) {
    const GilRelease others;
    return call();
}

/// Whether the interpreter still runs code.
bool isInterpreterUp() noexcept;

}  // namespace vantrace
