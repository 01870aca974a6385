#include "vantrace/bridge/missing_service.hpp"

#include <stdexcept>
#include <string>

namespace vantrace {

namespace {

const char* nameOf(Service service) {
    switch (service) {
        case Service::profiler:
            return "the event profiler";
    }
    return "the service";
}

}  // namespace

void throwMissing(Service service) {
    throw std::runtime_error(std::string(nameOf(service)) + " is not available in this build");
}

}  // namespace vantrace
