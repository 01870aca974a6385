#include "trace.hpp"

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "export_file.hpp"
#include "handle_object.hpp"
#include "line_lists.hpp"
#include "results.hpp"
#include "text.hpp"
#include "zandor/instrument/trace_file.hpp"

namespace vantrace {

using instrument::TraceFile;

namespace {

namespace fs = std::filesystem;

struct OpenTrace {
    Ref progress;
    std::unique_ptr<TraceFile> file;
};

using TraceObject = HandleObject<OpenTrace>;

TraceFile& traceOf(PyObject* self) {
    return *TraceObject::of(self).file;
}

/// Does with a file what takes long; errors name the file.
template <typename Work>
auto with(const fs::path& file, Work work) {
    try {
        return withoutLock([&] { return work(file); });
    } catch (const std::system_error& error) {
        throw fs::filesystem_error(error.what(), file, error.code());
    }
}

/// Tells `progress`, where there is one, how many bytes were read; and lets the interpreter handle
/// signals. Either may end what goes on.
void tell(PyObject* progress, std::uint64_t bytes) {
    withLock([&] {
        check(PyErr_CheckSignals());
        if (progress != Py_None)
            Ref::take(PyObject_CallFunction(progress, "K", static_cast<unsigned long long>(bytes)));
    });
}

instrument::TraceProgress progressOf(PyObject* progress) {
    return [progress](std::uint64_t bytes) { tell(progress, bytes); };
}

PyObject* create(PyTypeObject* type, PyObject* arguments, PyObject*) {
    return guarded([&] {
        PyObject* path = nullptr;
        PyObject* progress = Py_None;
        if (!PyArg_ParseTuple(arguments, "O|O:Trace", &path, &progress))
            throw PythonError();
        auto trace = with(pathArgument(path), [&](const fs::path& file) {
            return std::make_unique<TraceFile>(file, progressOf(progress));
        });
        return TraceObject::make(reinterpret_cast<PyObject*>(type),
                                 {Ref::share(progress), std::move(trace)})
            .release();
    });
}

std::optional<std::int64_t> timeOf(PyObject* time) {
    if (time == Py_None)
        return std::nullopt;
    const long long nanoseconds = PyLong_AsLongLong(time);
    if (nanoseconds == -1 && PyErr_Occurred())
        throw PythonError();
    return nanoseconds;
}

PyObject* select(PyObject* self, PyObject* arguments) {
    return guarded([&] {
        PyObject* since = nullptr;
        PyObject* until = nullptr;
        long long minimumDuration = -1;
        Py_ssize_t most = 0;
        int contexts = 1;
        if (!PyArg_ParseTuple(arguments, "OOLnp:select", &since, &until, &minimumDuration, &most,
                              &contexts))
            throw PythonError();
        const instrument::TraceSelection selection{
            timeOf(since), timeOf(until), minimumDuration,
            static_cast<std::size_t>(std::max<Py_ssize_t>(most, 0)), contexts != 0};
        withoutLock([&] { traceOf(self).select(selection); });
        return Py_NewRef(Py_None);
    });
}

PyObject* saveJson(PyObject* self, PyObject* path) {
    return save(path, [&](const fs::path& file) { traceOf(self).saveTraceEventJson(file); });
}

PyObject* saveParts(PyObject* self, PyObject* arguments) {
    return guarded([&] {
        PyObject* path = nullptr;
        unsigned long long mostBytes = 0;
        if (!PyArg_ParseTuple(arguments, "OK:save_parts", &path, &mostBytes))
            throw PythonError();
        const auto files = with(pathArgument(path), [&](const fs::path& file) {
            return traceOf(self).saveTraceEventJson(file, mostBytes);
        });
        Ref list = Ref::take(PyList_New(0));
        for (const fs::path& file : files)
            check(PyList_Append(list.get(),
                                Ref::take(PyUnicode_DecodeFSDefault(file.c_str())).get()));
        return list.release();
    });
}

PyObject* saveStacks(PyObject* self, PyObject* path) {
    return save(path, [&](const fs::path& file) { traceOf(self).saveCollapsedStacks(file); });
}

PyObject* saveSpeedscope(PyObject* self, PyObject* path) {
    return save(path, [&](const fs::path& file) { traceOf(self).saveSpeedscope(file); });
}

PyObject* summary(PyObject* self, PyObject*) {
    return guarded([&] { return listOf(withoutLock([&] { return traceOf(self).summarize(); })); });
}

PyObject* stacks(PyObject* self, PyObject*) {
    return guarded([&] {
        const auto stacks = withoutLock([&] { return traceOf(self).stacks(); });
        Ref list = Ref::take(PyList_New(0));
        for (const instrument::TraceStack& stack : stacks) {
            const bool isThread = stack.parent == instrument::TraceStack::noParent;
            const Ref entry = Ref::take(Py_BuildValue(
                "(LNLL)", isThread ? -1LL : static_cast<long long>(stack.parent),
                strOf(std::string_view(stack.name)).release(), static_cast<long long>(stack.calls),
                static_cast<long long>(stack.self)));
            check(PyList_Append(list.get(), entry.get()));
        }
        return list.release();
    });
}

PyObject* reportData(PyObject* self, PyObject*) {
    return guarded([&] {
        const std::string text = withoutLock([&] { return traceOf(self).reportData(); });
        return strOf(std::string_view(text)).release();
    });
}

PyObject* lines(PyObject* self, PyObject*) {
    return guarded(
        [&] { return listsOf(withoutLock([&] { return traceOf(self).lineSamples(); })); });
}

PyObject* threads(PyObject* self, PyObject*) {
    return guarded(
        [&] { return namesOf(withoutLock([&] { return traceOf(self).threadNames(); })); });
}

PyObject* drops(PyObject* self, PyObject*) {
    return guarded([&] { return dictOf(traceOf(self).drops()); });
}

PyObject* duration(PyObject* self, void*) {
    return PyLong_FromLongLong(traceOf(self).duration());
}

PyObject* processes(PyObject* self, void*) {
    return PyLong_FromUnsignedLong(traceOf(self).processCount());
}

PyObject* events(PyObject* self, void*) {
    return PyLong_FromUnsignedLongLong(traceOf(self).eventCount());
}

PyObject* damagedBlocks(PyObject* self, void*) {
    return PyLong_FromUnsignedLongLong(traceOf(self).damagedBlocks());
}

PyObject* isComplete(PyObject* self, void*) {
    return PyBool_FromLong(traceOf(self).isComplete());
}

PyMethodDef methods[] = {
    {"select", select, METH_VARARGS,
     "select(since, until, min_duration, most_per_thread, contexts): leaves out the rest."},
    {"save_json", saveJson, METH_O, "Writes trace-event JSON."},
    {"save_parts", saveParts, METH_VARARGS,
     "save_parts(path, most_bytes): writes trace-event JSON in several files; gives their names."},
    {"save_stacks", saveStacks, METH_O, "Writes collapsed stacks."},
    {"save_speedscope", saveSpeedscope, METH_O, "Writes profiles for speedscope."},
    {"summary", summary, METH_NOARGS,
     "(name, count, total, self, minimum, maximum, median, 99th percentile) of complete events, "
     "times in nanoseconds."},
    {"stacks", stacks, METH_NOARGS,
     "(parent, name, calls, self) of each distinct stack, behind its parent; threads have -1."},
    {"report_data", reportData, METH_NOARGS, "What a report shows, as JSON of bounded size."},
    {"lines", lines, METH_NOARGS,
     "Samples of lines: (threads, lines, periods, times), as line_samples gives them."},
    {"threads", threads, METH_NOARGS, "The name of each thread that has complete events."},
    {"drops", drops, METH_NOARGS, "How many events were dropped, by cause."},
    {nullptr, nullptr, 0, nullptr},
};

PyGetSetDef properties[] = {
    {"duration", duration, nullptr, "Nanoseconds from the first event to the end of the last.",
     nullptr},
    {"processes", processes, nullptr, "How many processes it is of.", nullptr},
    {"events", events, nullptr, "How many events it has.", nullptr},
    {"damaged_blocks", damagedBlocks, nullptr, "How many blocks were not read whole.", nullptr},
    {"is_complete", isComplete, nullptr, "Whether its writer came to the end.", nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyType_Slot slots[] = {
    {Py_tp_doc,
     const_cast<char*>("Trace(path, progress=None)\n--\n\nA trace file. progress is called "
                       "with the bytes that were read so far, each time that it is "
                       "read; what it raises ends that.")},
    {Py_tp_new, asSlot(create)},
    {Py_tp_dealloc, asSlot(TraceObject::deallocate)},
    {Py_tp_methods, methods},
    {Py_tp_getset, properties},
    {0, nullptr},
};

PyType_Spec spec = {"vantrace._core.Trace", sizeof(TraceObject), 0, Py_TPFLAGS_DEFAULT, slots};

}  // namespace

void addTrace(PyObject* module) {
    const Ref type = Ref::take(PyType_FromSpec(&spec));
    check(PyModule_AddObjectRef(module, "Trace", type.get()));
}

PyObject* finishRunFolder(PyObject*, PyObject* arguments) {
    return guarded([&] {
        PyObject* folder = nullptr;
        PyObject* path = nullptr;
        if (!PyArg_ParseTuple(arguments, "OO:finish_run_folder", &folder, &path))
            throw PythonError();
        const fs::path from = pathArgument(folder);
        return PyLong_FromUnsignedLong(with(pathArgument(path), [&](const fs::path& file) {
            return instrument::finishRunFolder(from, file);
        }));
    });
}

PyObject* combineTraces(PyObject*, PyObject* arguments) {
    return guarded([&] {
        PyObject* list = nullptr;
        PyObject* path = nullptr;
        PyObject* progress = Py_None;
        if (!PyArg_ParseTuple(arguments, "O!O|O:combine_traces", &PyList_Type, &list, &path,
                              &progress))
            throw PythonError();
        std::vector<fs::path> files;
        for (Py_ssize_t i = 0; i < PyList_GET_SIZE(list); ++i)
            files.push_back(pathArgument(PyList_GET_ITEM(list, i)));
        with(pathArgument(path), [&](const fs::path& file) {
            instrument::combineTraceFiles(files, file, progressOf(progress));
            return true;
        });
        return Py_NewRef(Py_None);
    });
}

}  // namespace vantrace
