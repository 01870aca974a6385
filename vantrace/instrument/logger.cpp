// The namespace "logger": events printed on the console.
#include "vantrace/bridge/missing_service.hpp"
#include "vantrace/instrument/method_tables.hpp"

namespace vantrace {

namespace {

template <typename Result, typename... Parameters>
constexpr auto absent = missing<Service::logger, Result, Parameters...>;

constinit const MethodRow rows[] = {
    {"isActive", absent<bool>},
    {"start", absent<void>},
    {"stop", absent<void>},
};

}  // namespace

constinit const MethodTable loggerMethods = rows;

}  // namespace vantrace
