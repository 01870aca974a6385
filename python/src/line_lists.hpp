// Samples of lines as Python has them.
#pragma once

#include "python_api.hpp"
#include "zandor/instrument/line_samples.hpp"

namespace vantrace {

/// (threads, lines, periods, times): lists of (process, id, name), (file, function, line, text),
/// (begin, end, ticks, misread) and (period, thread, line, self, cpu, held), where a line of -1 is
/// all that the thread did.
PyObject* listsOf(const instrument::LineSamples& samples);

/// A function of the module: the same of a stream, without a trace around it.
PyObject* lineSamples(PyObject* module, PyObject* stream);

}  // namespace vantrace
