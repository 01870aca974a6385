// Which methods run under the interpreter's lock.
#pragma once

#include <string_view>

namespace vantrace {

/// True for a method that is over sooner than letting go of the lock would take, and waits for no
/// listener: timers, enquiries, switches, single events. All others run without the lock, those of
/// unknown plug-ins too.
bool keepsInterpreterLock(std::string_view fullName) noexcept;

}  // namespace vantrace
