// The namespace "profiler": a stretch of work profiled.
#include "zandor/performance/profiler.hpp"

#include <cstddef>
#include <string>
#include <tuple>
#include <vector>

#include "vantrace/instrument/listening.hpp"
#include "vantrace/instrument/method_tables.hpp"
#include "vantrace/instrument/struct_array.hpp"

namespace vantrace {

using instrument::InstrumentProfiler;

namespace {

InstrumentProfiler theProfiler;
constinit Listening listening(theProfiler);

bool isActive() {
    return listening.isActive();
}

void start() {
    listening.start();
}

Composed toStructArray(const std::vector<InstrumentProfiler::Row>& rows) {
    constexpr const char* fields[] = {"Name", "CallCount", "StartTime", "TotalTime", "SelfTime"};
    StructArray array(rows.size(), fields);
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const auto& [name, calls, start, total, self] = rows[i];
        array.set(i, 0, textValue(name));
        array.set(i, 1, numberValue(static_cast<double>(calls)));
        array.set(i, 2, numberValue(start));
        array.set(i, 3, numberValue(total));
        array.set(i, 4, numberValue(self));
    }
    return Composed(matrix::to_zandor(std::move(array).release()));
}

// Either way of stopping leaves the profile empty.

Composed stop() {
    listening.stop();
    const std::vector<InstrumentProfiler::Row> rows = theProfiler.getData();
    theProfiler.clear();
    return toStructArray(rows);
}

void stopAndPrint() {
    listening.stop();
    theProfiler.print();
    theProfiler.clear();
}

constinit const MethodRow rows[] = {
    {"isActive", isActive},
    {"start", start},
    {"stop", stop},
    {"stopAndPrint", stopAndPrint},
};

}  // namespace

constinit const MethodTable profilerMethods = rows;

}  // namespace vantrace
