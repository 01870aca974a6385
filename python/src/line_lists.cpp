#include "line_lists.hpp"

#include <string_view>

#include "errors.hpp"
#include "text.hpp"

namespace vantrace {

using instrument::LineSamples;

namespace {

template <class Items, class Make>
Ref listOfEach(const Items& items, Make make) {
    Ref list = Ref::take(PyList_New(static_cast<Py_ssize_t>(items.size())));
    for (std::size_t i = 0; i < items.size(); ++i)
        PyList_SET_ITEM(list.get(), static_cast<Py_ssize_t>(i),
                        Ref::take(make(items[i])).release());
    return list;
}

PyObject* newText(const std::string& text) {
    return strOf(std::string_view(text)).release();
}

PyObject* threadOf(const LineSamples::Thread& thread) {
    return Py_BuildValue("(IKN)", thread.process, static_cast<unsigned long long>(thread.id),
                         newText(thread.name));
}

PyObject* lineOf(const instrument::SourceLine& line) {
    return Py_BuildValue("(NNIN)", newText(line.file), newText(line.function), line.number,
                         newText(line.text));
}

PyObject* periodOf(const instrument::LinePeriod& period) {
    return Py_BuildValue("(LLKK)", static_cast<long long>(period.begin),
                         static_cast<long long>(period.end),
                         static_cast<unsigned long long>(period.ticks),
                         static_cast<unsigned long long>(period.misread));
}

PyObject* timeOf(const LineSamples::Time& time) {
    const bool isAll = time.line == instrument::LineTime::allLines;
    return Py_BuildValue("(IILLLL)", time.period, time.thread,
                         isAll ? -1LL : static_cast<long long>(time.line),
                         static_cast<long long>(time.self), static_cast<long long>(time.cpu),
                         static_cast<long long>(time.held));
}

}  // namespace

PyObject* listsOf(const LineSamples& samples) {
    const Ref threads = listOfEach(samples.threads, threadOf);
    const Ref lines = listOfEach(samples.lines, lineOf);
    const Ref periods = listOfEach(samples.periods, periodOf);
    const Ref times = listOfEach(samples.times, timeOf);
    return PyTuple_Pack(4, threads.get(), lines.get(), periods.get(), times.get());
}

PyObject* lineSamples(PyObject*, PyObject* stream) {
    return guarded([&] {
        char* bytes = nullptr;
        Py_ssize_t size = 0;
        check(PyBytes_AsStringAndSize(stream, &bytes, &size));
        LineSamples samples;
        instrument::addLineSamples(
            {reinterpret_cast<const std::byte*>(bytes), static_cast<std::size_t>(size)}, {},
            samples);
        return listsOf(samples);
    });
}

}  // namespace vantrace
