#include "thread_name.hpp"

#include <pthread.h>
#include <unistd.h>

#include "errors.hpp"
#include "text.hpp"
#include "zandor/instrument/source.hpp"

namespace vantrace {

constinit thread_local bool isThreadNameKnown [[gnu::tls_model("initial-exec")]] = false;

namespace {

/// The Thread object's name; none for a thread that Python did not start. Asking threading for the
/// current thread would make such a thread one of Python's.
Ref nameFromThreading(PyObject* threading) {
    const Ref active = Ref::take(PyObject_GetAttrString(threading, "_active"));
    const Ref identity = Ref::take(PyLong_FromUnsignedLong(PyThread_get_thread_ident()));
    if (!PyDict_Check(active.get()))
        return Ref();
    PyObject* thread = PyDict_GetItemWithError(active.get(), identity.get());
    if (!thread)
        return Ref();
    return Ref::take(PyObject_GetAttrString(thread, "name"));
}

bool isMainThread() noexcept {
    return gettid() == getpid();
}

/// Without the threading module there are no other threads of Python's own.
Ref findName() {
    PyObject* threading = PyDict_GetItemString(PyImport_GetModuleDict(), "threading");
    if (threading)
        return nameFromThreading(threading);
    return isMainThread() ? strOf(std::string_view("MainThread")) : Ref();
}

}  // namespace

void lookUpThreadName() noexcept {
    PyObject* type = nullptr;
    PyObject* value = nullptr;
    PyObject* traceback = nullptr;
    PyErr_Fetch(&type, &value, &traceback);
    isThreadNameKnown = true;  // first: what follows may produce events itself
    guardedStatus([] {
        const Ref name = findName();
        Ref owner;
        if (name && PyUnicode_Check(name.get()))
            instrument::setDefaultThreadName(utf8Of(name.get(), owner));
    });
    PyErr_Restore(type, value, traceback);  // a thread without a name is no failure
}

}  // namespace vantrace
