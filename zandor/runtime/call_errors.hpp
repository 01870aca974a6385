// Exceptions on their way from a method to its caller.
#pragma once

#include "zandor/runtime/zandor.hpp"

namespace zandor {

/// Rethrows the exception in flight: host type errors with the method's full name before their
/// text, exceptions of the plug-in's own types as their nearest standard base. To be called while
/// the plug-in is still held.
[[noreturn]] void rethrowForCaller(const Method::Node& method);

}  // namespace zandor
