// The namespace "utils": timers, modules, libraries, test tasks and the release in a file.
#include <cstdint>
#include <string>

#include "vantrace/performance/libraries.hpp"
#include "vantrace/performance/method_tables.hpp"
#include "vantrace/performance/release.hpp"
#include "zandor/performance/module_list.hpp"
#include "zandor/performance/task_manager.hpp"
#include "zandor/performance/timers.hpp"
#include "zandor/runtime/library.hpp"

namespace vantrace {

namespace manager = Performance::CooperativeTaskManager;

namespace {

template <typename Duration>
std::uint64_t countOf(Duration time) {
    return static_cast<std::uint64_t>(time.count());
}

std::uint64_t getNanosecondTimer() {
    return countOf(Performance::GetNanosecondTimer());
}
std::uint64_t getMicrosecondTimer() {
    return countOf(Performance::GetMicrosecondTimer());
}
std::uint64_t getMillisecondTimer() {
    return countOf(Performance::GetMillisecondTimer());
}
void loadLibrary(const std::string& name) {
    loadOne(name, utLoadLibrary);
}
void loadLibraries(const Strings& names) {
    loadEach(names, utLoadLibrary);
}

constinit const MethodRow rows[] = {
    {"getNanosecondTimer", getNanosecondTimer},
    {"getMicrosecondTimer", getMicrosecondTimer},
    {"getMillisecondTimer", getMillisecondTimer},
    {"getModuleList", Performance::GetModuleListForCurrentProcess},
    {"queueLoadLibrary", manager::test_queueLoadLibrary},
    {"loadLibrary", loadLibrary},
    {"loadLibraries", loadLibraries},
    {"queueSleepTask", manager::test_queueSleepTask},
    {"getReleseFromXMLFile", releaseInXmlFile},
    {"queueDummyTaskIfNonParSessions", manager::test_queueNewTaskIfNonParSessions},
};

}  // namespace

constinit const MethodTable utilsMethods = rows;

}  // namespace vantrace
