#include "vantrace/bridge/missing_service.hpp"

#include <stdexcept>
#include <string>

namespace vantrace {

namespace {

const char* nameOf(Service service) {
    switch (service) {
        case Service::counter:
            return "the event counter";
        case Service::profiler:
            return "the event profiler";
        case Service::logger:
            return "the event logger";
        case Service::externalEventsAggregator:
            return "the aggregator of external events";
        case Service::productStatistics:
            return "the product statistics store";
        case Service::taskManager:
            return "the cooperative task manager";
        case Service::utilities:
            return "the performance utilities library";
    }
    return "the service";
}

}  // namespace

void throwMissing(Service service) {
    throw std::runtime_error(std::string(nameOf(service)) + " is not available in this build");
}

}  // namespace vantrace
