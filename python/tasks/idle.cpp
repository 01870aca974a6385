#include "idle.hpp"

#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <exception>

#include "../src/gil.hpp"
#include "../src/python_exception.hpp"
#include "zandor/performance/task_manager.hpp"
#include "zandor/runtime/console.hpp"

namespace vantrace {

namespace manager = Performance::CooperativeTaskManager;

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds slice(5);

bool runSlice(manager::TaskSession& session) noexcept {
    const auto end = Clock::now() + slice;
    try {
        // Work that is left although time is, is paused or run by another thread.
        return session.process(slice) && Clock::now() >= end;
    } catch (abi::__forced_unwind&) {
        park();
    } catch (const PythonException&) {
        return true;  // reports itself when it dies here
    } catch (const std::exception& error) {
        utPrintf("A task failed: %s\n", error.what());
        return true;
    } catch (...) {
        utPrintf("A task failed\n");
        return true;
    }
}

bool isInputThere() noexcept {
    pollfd input{STDIN_FILENO, POLLIN, 0};
    return poll(&input, 1, 0) != 0;
}

int (*earlierHook)() = nullptr;

/// Called before each wait for a key, ten times a second; without line editing once a line.
int inputHook() {
    while (!isInputThere() && runIdleSlice())
        continue;
    return earlierHook ? earlierHook() : 0;
}

}  // namespace

bool runIdleSlice() noexcept {
    const bool isMainLeft = runSlice(*manager::instance());
    const bool isPpeLeft = runSlice(*manager::ppe());
    return isMainLeft || isPpeLeft;
}

void installInputHook() {
    earlierHook = PyOS_InputHook;
    PyOS_InputHook = inputHook;
}

}  // namespace vantrace
