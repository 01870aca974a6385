#include "recorder.hpp"

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <iterator>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "errors.hpp"
#include "export_file.hpp"
#include "handle_object.hpp"
#include "recorded_events.hpp"
#include "results.hpp"
#include "text.hpp"
#include "thread_name.hpp"
#include "zandor/instrument/controls.hpp"
#include "zandor/instrument/exports.hpp"
#include "zandor/instrument/recorder.hpp"
#include "zandor/instrument/trace_file.hpp"

namespace vantrace {

using instrument::InstrumentRecorder;

namespace {

/// Switches every instrument on for as long as at least one recorder of this file listens. Guarded
/// by the interpreter's lock, which a fork holds too.
class SwitchedOn {
  public:
    void begin() {
        if (users_ == 0) {
            before_ = instrument::controls.wereAllEnabled();
            // Up already: raising it again would forget what was switched off since.
            if (!before_)
                instrument::controls.enableAll(true);
        }
        ++users_;
    }
    void end() {
        if (--users_ == 0)
            instrument::controls.enableAll(before_);
    }

  private:
    int users_ = 0;
    bool before_ = false;
};

constinit SwitchedOn switchedOn;

struct Recording {
    std::unique_ptr<InstrumentRecorder> recorder;
    bool isActive = false;
};

using RecorderObject = HandleObject<Recording>;

InstrumentRecorder& recorderOf(PyObject* self) {
    return *RecorderObject::of(self).recorder;
}

struct KeepName {
    const char* name;
    instrument::Keep keep;
};

constexpr KeepName keepNames[] = {
    {"first", instrument::Keep::first},
    {"last", instrument::Keep::last},
    {"longest", instrument::Keep::longest},
};

instrument::Keep keepOf(const char* name) {
    for (const KeepName& known : keepNames) {
        if (std::string_view(known.name) == name)
            return known.keep;
    }
    raise(PyExc_ValueError, "keep is \"first\", \"last\" or \"longest\", not \"%s\"", name);
}

PyObject* create(PyTypeObject* type, PyObject* arguments, PyObject* named) {
    return guarded([&] {
        static const char* names[] = {"max_bytes", "keep", "folder", nullptr};
        Py_ssize_t maxBytes = 0;
        const char* keep = "first";
        PyObject* folder = Py_None;
        if (!PyArg_ParseTupleAndKeywords(arguments, named, "|nsO:Recorder",
                                         const_cast<char**>(names), &maxBytes, &keep, &folder))
            throw PythonError();
        if (maxBytes < 0)
            raise(PyExc_ValueError, "max_bytes must not be negative, got %zd", maxBytes);
        instrument::RecorderLimits limits{static_cast<std::size_t>(maxBytes), keepOf(keep)};
        if (folder != Py_None)
            limits.folder = pathArgument(folder);
        return RecorderObject::make(reinterpret_cast<PyObject*>(type),
                                    {std::make_unique<InstrumentRecorder>(limits)})
            .release();
    });
}

PyObject* start(PyObject* self, PyObject*) {
    return guarded([&] {
        Recording& recording = RecorderObject::of(self);
        if (recording.isActive)
            raise(PyExc_RuntimeError, "the recorder is active already");
        nameThread();
        switchedOn.begin();
        instrument::listeners.add(*recording.recorder);
        recording.isActive = true;
        Py_INCREF(self);  // a recorder that listens is not to go
        return Py_NewRef(Py_None);
    });
}

PyObject* stop(PyObject* self, PyObject*) {
    return guarded([&] {
        Recording& recording = RecorderObject::of(self);
        if (!recording.isActive)
            return Py_NewRef(Py_None);
        recording.isActive = false;
        switchedOn.end();
        withoutLock([&] { instrument::listeners.remove(*recording.recorder); });
        Py_DECREF(self);
        return Py_NewRef(Py_None);
    });
}

PyObject* clear(PyObject* self, PyObject*) {
    return guarded([&] {
        withoutLock([&] { recorderOf(self).clearAllEventData(); });
        return Py_NewRef(Py_None);
    });
}

PyObject* saveJson(PyObject* self, PyObject* arguments) {
    PyObject* path = nullptr;
    long long minimumDuration = -1;
    if (!PyArg_ParseTuple(arguments, "O|L:save_json", &path, &minimumDuration))
        return nullptr;
    return save(path, [&](const std::filesystem::path& file) {
        instrument::saveTraceEventJson(recorderOf(self), instrument::TimeSystem::monotonic,
                                       std::chrono::nanoseconds(minimumDuration), file);
    });
}

PyObject* saveTrace(PyObject* self, PyObject* arguments) {
    PyObject* path = nullptr;
    const char* lines = nullptr;
    Py_ssize_t size = 0;
    if (!PyArg_ParseTuple(arguments, "O|y#:save_trace", &path, &lines, &size))
        return nullptr;
    return save(path, [&](const std::filesystem::path& file) {
        instrument::saveTraceFile(
            recorderOf(self), file,
            {reinterpret_cast<const std::byte*>(lines), static_cast<std::size_t>(size)});
    });
}

PyObject* saveStacks(PyObject* self, PyObject* path) {
    return save(path, [&](const std::filesystem::path& file) {
        instrument::saveCollapsedStacks(recorderOf(self), file);
    });
}

PyObject* summary(PyObject* self, PyObject*) {
    return guarded([&] {
        return listOf(withoutLock([&] { return instrument::summarize(recorderOf(self)); }));
    });
}

PyObject* events(PyObject* self, PyObject*) {
    return guarded([&] { return listEvents(recorderOf(self)).release(); });
}

PyObject* threads(PyObject* self, PyObject*) {
    return guarded([&] {
        return namesOf(withoutLock([&] { return instrument::threadNames(recorderOf(self)); }));
    });
}

PyObject* threadNames(PyObject* self, PyObject*) {
    return guarded([&] {
        const auto names =
            withoutLock([&] { return instrument::threadNamesById(recorderOf(self)); });
        Ref dict = Ref::take(PyDict_New());
        for (const auto& [thread, name] : names) {
            const Ref key = Ref::take(PyLong_FromUnsignedLongLong(thread));
            check(PyDict_SetItem(dict.get(), key.get(), strOf(std::string_view(name)).get()));
        }
        return dict.release();
    });
}

PyObject* drops(PyObject* self, PyObject*) {
    return guarded([&] { return dictOf(recorderOf(self).drops()); });
}

PyObject* isActive(PyObject* self, void*) {
    return PyBool_FromLong(RecorderObject::of(self).isActive);
}

PyObject* bytesInUse(PyObject* self, void*) {
    return PyLong_FromSize_t(recorderOf(self).bytesInUse());
}

PyMethodDef methods[] = {
    {"start", start, METH_NOARGS, "Switches every instrument on and listens."},
    {"stop", stop, METH_NOARGS, "Gives the switches back and listens no more."},
    {"clear", clear, METH_NOARGS, "Forgets what was recorded."},
    {"save_json", saveJson, METH_VARARGS,
     "save_json(path, minimum_duration=-1): writes trace-event JSON."},
    {"save_trace", saveTrace, METH_VARARGS,
     "save_trace(path, lines=b''): writes a trace file, with a stream of samples."},
    {"save_stacks", saveStacks, METH_O, "Writes collapsed stacks."},
    {"summary", summary, METH_NOARGS,
     "(name, count, total, self, minimum, maximum, median, 99th percentile) of complete events, "
     "times in nanoseconds."},
    {"events", events, METH_NOARGS,
     "(name, kind, start, duration, thread, context) of all events, by start."},
    {"threads", threads, METH_NOARGS, "The name of each thread that has complete events."},
    {"thread_names", threadNames, METH_NOARGS,
     "{the system's id: name} of this process's threads that have anything in it."},
    {"drops", drops, METH_NOARGS, "How many events were dropped, by cause."},
    {nullptr, nullptr, 0, nullptr},
};

PyGetSetDef properties[] = {
    {"is_active", isActive, nullptr, "Whether it listens.", nullptr},
    {"bytes_in_use", bytesInUse, nullptr, "Bytes of event memory.", nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

/// The recorder's destruction may wait for other threads.
void deallocate(PyObject* self) {
    std::unique_ptr<InstrumentRecorder> recorder = std::move(RecorderObject::of(self).recorder);
    withoutLock([&] { recorder.reset(); });
    RecorderObject::deallocate(self);
}

PyType_Slot slots[] = {
    {Py_tp_doc, const_cast<char*>("Recorder(max_bytes=0, keep=\"first\", folder=None)\n--\n\n"
                                  "Keeps the events that it hears between start and stop.")},
    {Py_tp_new, asSlot(create)},
    {Py_tp_dealloc, asSlot(deallocate)},
    {Py_tp_methods, methods},
    {Py_tp_getset, properties},
    {0, nullptr},
};

PyType_Spec spec = {"vantrace._core.Recorder", sizeof(RecorderObject), 0, Py_TPFLAGS_DEFAULT,
                    slots};

}  // namespace

void addRecorder(PyObject* module) {
    const Ref type = Ref::take(PyType_FromSpec(&spec));
    check(PyModule_AddObjectRef(module, "Recorder", type.get()));
}

}  // namespace vantrace
