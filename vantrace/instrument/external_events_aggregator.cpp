// The namespace "externalEventsAggregator": events of external clients taken in.
#include "vantrace/bridge/missing_service.hpp"
#include "vantrace/instrument/method_tables.hpp"

namespace vantrace {

namespace {

template <typename Result, typename... Parameters>
constexpr auto absent = missing<Service::externalEventsAggregator, Result, Parameters...>;

constinit const MethodRow rows[] = {
    {"start", absent<void>},
    {"stop", absent<void>},
    {"collectEvents", absent<void>},
    {"refreshActiveClients", absent<void>},
};

}  // namespace

constinit const MethodTable externalEventsAggregatorMethods = rows;

}  // namespace vantrace
