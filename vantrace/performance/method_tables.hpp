// The methods of the namespaces of performance services, each table in the file of its
// namespace's name.
#pragma once

#include "vantrace/bridge/method_table.hpp"

namespace vantrace {

extern const MethodTable utilsMethods;
extern const MethodTable cooperativeTaskManagerMethods;

}  // namespace vantrace
