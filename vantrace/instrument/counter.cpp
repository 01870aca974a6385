// The namespace "counter": events counted.
#include "vantrace/bridge/missing_service.hpp"
#include "vantrace/instrument/method_tables.hpp"

namespace vantrace {

namespace {

template <typename Result, typename... Parameters>
constexpr auto absent = missing<Service::counter, Result, Parameters...>;

constinit const MethodRow rows[] = {
    {"isActive", absent<bool>},
    {"start", absent<void>},
    {"stop", absent<void>},
    {"resetAllEventCounts", absent<void>},
    {"resetEventCount", absent<void, const std::string&>},
    {"getAllEventCounts", absent<Composed>},
    {"getAllEventCountsByContext", absent<Composed>},
    {"getAllEventCountsByContextEntry", absent<Composed>},
    {"getEventCount", absent<Composed, const std::string&>},
    {"getEventCountsByContext", absent<Composed, const std::string&>},
    {"getEventCountsByContextEntry", absent<Composed, const std::string&>},
    {"getEventCountForContext", absent<Composed, const std::string&, const Strings&>},
};

}  // namespace

constinit const MethodTable counterMethods = rows;

}  // namespace vantrace
