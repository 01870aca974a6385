#include "zandor/runtime/call_errors.hpp"

#include <new>
#include <typeinfo>

#include "zandor/runtime/nodes.hpp"

namespace kobs {

NameExistsError::~NameExistsError() = default;
factory::HostTypeError::~HostTypeError() = default;

}  // namespace kobs

namespace zandor {

// Defined here, so that the types of what is thrown stand in this library alone.
PluginError::~PluginError() = default;
NotLoadedError::~NotLoadedError() = default;
NameNotFoundError::~NameNotFoundError() = default;
ArgumentError::~ArgumentError() = default;
ArgumentRangeError::~ArgumentRangeError() = default;

namespace {

using kobs::factory::HostTypeError;

/// Whether the exception's code would go when the plug-in does.
bool belongsToPlugin(const std::exception& error, const Plugin::Node* plugin) noexcept {
    return plugin && plugin->range.contains(&typeid(error));
}

template <typename Base>
void rethrowIf(const std::exception& error) {
    if (dynamic_cast<const Base*>(&error))
        throw Base(error.what());
}

[[noreturn]] void rethrowAsStandard(const std::exception& error) {
    if (dynamic_cast<const std::bad_alloc*>(&error))
        throw std::bad_alloc();
    rethrowIf<std::invalid_argument>(error);
    rethrowIf<std::domain_error>(error);
    rethrowIf<std::length_error>(error);
    rethrowIf<std::out_of_range>(error);
    rethrowIf<std::logic_error>(error);
    rethrowIf<std::overflow_error>(error);
    rethrowIf<std::underflow_error>(error);
    rethrowIf<std::range_error>(error);
    throw std::runtime_error(error.what());
}

}  // namespace

void rethrowForCaller(const std::string& fullName, const Plugin::Node* plugin) {
    const auto named = [&](const std::exception& error) { return fullName + ": " + error.what(); };
    try {
        throw;
    } catch (const ArgumentError& error) {
        throw ArgumentError(named(error));
    } catch (const HostTypeError& error) {
        throw HostTypeError(named(error));
    } catch (const std::exception& error) {
        if (belongsToPlugin(error, plugin))
            rethrowAsStandard(error);
        throw;
    } catch (...) {
        throw std::runtime_error(fullName + " threw what is no standard exception");
    }
}

}  // namespace zandor
