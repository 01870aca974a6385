// What recorders and trace files tell, as Python has it.
#pragma once

#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "errors.hpp"
#include "python_api.hpp"
#include "text.hpp"
#include "zandor/instrument/exports.hpp"
#include "zandor/instrument/recorder.hpp"

namespace vantrace {

/// (name, count, total, self, minimum, maximum, median, 99th percentile) of each.
inline PyObject* listOf(const std::vector<instrument::EventSummary>& lines) {
    Ref list = Ref::take(PyList_New(0));
    for (const auto& line : lines) {
        const Ref entry = Ref::take(Py_BuildValue(
            "(NLLLLLLL)", strOf(line.name).release(), static_cast<long long>(line.count),
            static_cast<long long>(line.total), static_cast<long long>(line.self),
            static_cast<long long>(line.minimum), static_cast<long long>(line.maximum),
            static_cast<long long>(line.p50), static_cast<long long>(line.p99)));
        check(PyList_Append(list.get(), entry.get()));
    }
    return list.release();
}

template <typename Names>
PyObject* namesOf(const Names& names) {
    Ref list = Ref::take(PyList_New(0));
    for (const std::string& name : names)
        check(PyList_Append(list.get(), strOf(std::string_view(name)).get()));
    return list.release();
}

inline PyObject* dictOf(const instrument::RecorderDrops& counts) {
    return Py_BuildValue("{sKsKsKsKsL}", "refused", static_cast<unsigned long long>(counts.refused),
                         "oldest", static_cast<unsigned long long>(counts.oldest), "shortest",
                         static_cast<unsigned long long>(counts.shortest), "failed",
                         static_cast<unsigned long long>(counts.failed), "minimum_duration",
                         static_cast<long long>(counts.minimumDuration));
}

}  // namespace vantrace
