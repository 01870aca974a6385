// The namespace "utils": timers, modules, libraries, test tasks and the release in a file.
#include "vantrace/bridge/missing_service.hpp"
#include "vantrace/performance/method_tables.hpp"

namespace vantrace {

namespace {

template <typename Result, typename... Parameters>
constexpr auto absent = missing<Service::utilities, Result, Parameters...>;

constinit const MethodRow rows[] = {
    {"getNanosecondTimer", absent<std::uint64_t>},
    {"getMicrosecondTimer", absent<std::uint64_t>},
    {"getMillisecondTimer", absent<std::uint64_t>},
    {"getModuleList", absent<Strings>},
    {"queueLoadLibrary", absent<void, const char*>},
    {"loadLibrary", absent<void, const std::string&>},
    {"loadLibraries", absent<void, const Strings&>},
    {"queueSleepTask", absent<void, std::int32_t>},
    {"getReleseFromXMLFile", absent<fl::ustring, const fl::ustring&>},
    {"queueDummyTaskIfNonParSessions", absent<bool>},
};

}  // namespace

constinit const MethodTable utilsMethods = rows;

}  // namespace vantrace
