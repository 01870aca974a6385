// The namespace "cooperativeTaskManager": the two task sessions driven.
#include "vantrace/bridge/missing_service.hpp"
#include "vantrace/performance/method_tables.hpp"

namespace vantrace {

namespace {

template <typename Result, typename... Parameters>
constexpr auto absent = missing<Service::taskManager, Result, Parameters...>;

constinit const MethodRow rows[] = {
    {"getNumPendingTasks", absent<std::int32_t>},
    {"logPendingTasks", absent<void>},
    {"pause", absent<void>},
    {"resume", absent<void>},
    {"isPaused", absent<bool>},
    {"pausePPE", absent<void>},
    {"resumePPE", absent<void>},
    {"finishAllTasks", absent<void>},
    {"finishTaskByName", absent<void, const std::string&>},
    {"process", absent<void, std::uint64_t>},
    {"isProcessing", absent<bool>},
    {"removeAllTasks", absent<void>},
    {"cleanup", absent<void>},
    {"setLoggingEnabled", absent<void, bool>},
    {"getLoggingEnabled", absent<bool>},
};

}  // namespace

constinit const MethodTable cooperativeTaskManagerMethods = rows;

}  // namespace vantrace
