// Values in the words of error messages.
#pragma once

#include <string>

#include "zandor/runtime/zandor.hpp"

namespace zandor {

/// What kind of value this is: "logical", "integer", "text", "cell array", "nothing".
std::string describe(const Value& value);

}  // namespace zandor
