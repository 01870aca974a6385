// Methods whose service this build of the host does not have: they are published, and a call says
// what is missing.
#pragma once

namespace vantrace {

enum class Service {
    profiler,
};

/// Throws std::runtime_error with the name of the service.
[[noreturn]] void throwMissing(Service service);

/// Stands in for a function of the service, in the shape that the method will have.
template <Service service, typename Result, typename... Parameters>
Result missing(Parameters...) {
    throwMissing(service);
}

}  // namespace vantrace
