// The namespace "productStats": timing records of the product kept.
#include "vantrace/bridge/missing_service.hpp"
#include "vantrace/instrument/method_tables.hpp"

namespace vantrace {

namespace {

template <typename Result, typename... Parameters>
constexpr auto absent = missing<Service::productStatistics, Result, Parameters...>;

constinit const MethodRow rows[] = {
    {"logEventTime", absent<void, const std::string&, const std::string&>},
    {"logEventBeginTime", absent<void, const std::string&, const std::string&>},
    {"logEventEndTime", absent<void, const std::string&, const std::string&>},
};

}  // namespace

constinit const MethodTable productStatsMethods = rows;

}  // namespace vantrace
