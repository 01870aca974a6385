// Exceptions on their way from a plug-in to its caller.
#pragma once

#include "zandor/runtime/zandor.hpp"

namespace zandor {

/// Rethrows the exception in flight: host type errors with `fullName`, of the method or namespace,
/// before their text; exceptions of the plug-in's own types as their nearest standard base. To be
/// called while the plug-in is still held. Null: code of nobody's.
[[noreturn]] void rethrowForCaller(const std::string& fullName, const Plugin::Node* plugin);

}  // namespace zandor
