#include "python_exception.hpp"

#include <utility>

#include "gil.hpp"

namespace vantrace {

struct PythonException::Kept {
    Ref type;
    Ref value;
    Ref traceback;
    Ref source;

    Kept() = default;
    Kept(const Kept&) = delete;
    Kept& operator=(const Kept&) = delete;

    void raise() noexcept { PyErr_Restore(type.release(), value.release(), traceback.release()); }

    /// Gives the objects back under the lock; without an interpreter they stay.
    ~Kept() {
        if (!isInterpreterUp()) {
            for (Ref* object : {&type, &value, &traceback, &source})
                object->release();
            return;
        }
        withLock([this] {
            if (type)
                report();
            source = Ref();
        });
    }

    void report() noexcept {
        PyObject* current[3];
        PyErr_Fetch(&current[0], &current[1], &current[2]);
        raise();
        PyErr_WriteUnraisable(source.get());
        PyErr_Restore(current[0], current[1], current[2]);
    }
};

PythonException::PythonException(const char* type, std::shared_ptr<Kept> kept)
    : std::runtime_error(type), kept_(std::move(kept)) {}

PythonException PythonException::take(PyObject* source) {
    PyObject* type = nullptr;
    PyObject* value = nullptr;
    PyObject* traceback = nullptr;
    PyErr_Fetch(&type, &value, &traceback);
    PyErr_NormalizeException(&type, &value, &traceback);
    auto kept = std::make_shared<Kept>();
    kept->type = Ref::steal(type);
    kept->value = Ref::steal(value);
    kept->traceback = Ref::steal(traceback);
    kept->source = Ref::share(source);
    return PythonException(asType(type)->tp_name, std::move(kept));
}

void PythonException::restore() const noexcept {
    if (!kept_->type)  // set already, where another copy of it was caught
        PyErr_SetString(PyExc_RuntimeError, what());
    else
        kept_->raise();
}

}  // namespace vantrace
