#include "console.hpp"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <string_view>

#include "errors.hpp"
#include "gil.hpp"
#include "text.hpp"
#include "zandor/instrument/suppress_events.hpp"
#include "zandor/runtime/console.hpp"

namespace vantrace {

namespace {

/// A stream of sys, and the descriptor in its place when the interpreter is gone.
struct Target {
    const char* stream;
    int descriptor;
};
constexpr Target standardOutput{"stdout", STDOUT_FILENO};
constexpr Target standardError{"stderr", STDERR_FILENO};

// Relaxed: the targets are constants.
constinit std::atomic<const Target*> target{&standardOutput};

int writeToDescriptor(std::string_view text) noexcept {
    const int descriptor = target.load(std::memory_order_relaxed)->descriptor;
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t now = write(descriptor, text.data() + written, text.size() - written);
        if (now >= 0) {
            written += static_cast<std::size_t>(now);
        } else if (errno != EINTR) {
            return -1;
        }
    }
    return static_cast<int>(text.size());
}

int raiseKept(void* exception) {
    const Ref kept = Ref::steal(static_cast<PyObject*>(exception));
    PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(kept.get())), kept.get());
    return -1;
}

/// Ordinary errors of the stream are nobody's to handle here. What is to end the program, such as
/// an interrupt, is raised again when the main thread next runs Python code.
void keepOrDropError() noexcept {
    PyObject* type = nullptr;
    PyObject* value = nullptr;
    PyObject* traceback = nullptr;
    PyErr_Fetch(&type, &value, &traceback);
    PyErr_NormalizeException(&type, &value, &traceback);
    const bool isOrdinary = PyErr_GivenExceptionMatches(type, PyExc_Exception);
    Py_XDECREF(type);
    Py_XDECREF(traceback);
    if (isOrdinary || !value || Py_AddPendingCall(raiseKept, value) != 0)
        Py_XDECREF(value);
}

void writeToStream(std::string_view text) {
    const Ref stream = Ref::share(PySys_GetObject(target.load(std::memory_order_relaxed)->stream));
    if (!stream || stream.get() == Py_None)
        return;
    const Ref str = strOf(text);
    Ref::take(
        intoPython([&] { return PyObject_CallMethod(stream.get(), "write", "O", str.get()); }));
}

/// Under the interpreter's lock. An exception that is set already stays.
int writeUnderLock(std::string_view text) noexcept {
    PyObject* type = nullptr;
    PyObject* value = nullptr;
    PyObject* traceback = nullptr;
    PyErr_Fetch(&type, &value, &traceback);
    const int status = guardedStatus([&] { writeToStream(text); });
    if (status < 0)
        keepOrDropError();
    PyErr_Restore(type, value, traceback);
    return status < 0 ? -1 : static_cast<int>(text.size());
}

int sink(const char* text, std::size_t length) noexcept {
    const std::string_view whole(text, length);
    if (!isInterpreterUp())
        return writeToDescriptor(whole);
    const instrument::SuppressEvents quiet;
    return withLock([&] { return writeUnderLock(whole); });
}

}  // namespace

PyObject* directConsoleToErrors(PyObject*, PyObject*) {
    target.store(&standardError, std::memory_order_relaxed);
    Py_RETURN_NONE;
}

void installConsoleSink() noexcept {
    zandor::setConsoleSink(sink);
}

}  // namespace vantrace
