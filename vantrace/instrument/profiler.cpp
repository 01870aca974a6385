// The namespace "profiler": a stretch of work profiled.
#include "vantrace/bridge/missing_service.hpp"
#include "vantrace/instrument/method_tables.hpp"

namespace vantrace {

namespace {

template <typename Result, typename... Parameters>
constexpr auto absent = missing<Service::profiler, Result, Parameters...>;

constinit const MethodRow rows[] = {
    {"isActive", absent<bool>},
    {"start", absent<void>},
    {"stop", absent<Composed>},
    {"stopAndPrint", absent<void>},
};

}  // namespace

constinit const MethodTable profilerMethods = rows;

}  // namespace vantrace
