#include "die_with_parent.hpp"

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include "errors.hpp"

namespace vantrace {

PyObject* dieWithParent(PyObject*, PyObject* parent) {
    return guarded([&] {
        const long expected = PyLong_AsLong(parent);
        if (expected == -1 && PyErr_Occurred())
            throw PythonError();
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != expected)  // it ended before
            kill(getpid(), SIGKILL);
        return Py_NewRef(Py_None);
    });
}

}  // namespace vantrace
