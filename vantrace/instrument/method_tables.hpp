// The methods of the namespaces of instrumentation, each table in the file of its namespace's name.
#pragma once

#include "vantrace/bridge/method_table.hpp"

namespace vantrace {

extern const MethodTable instrumentMethods;
extern const MethodTable instrumentsMethods;
extern const MethodTable controlsMethods;
extern const MethodTable recorderMethods;
extern const MethodTable profilerMethods;
extern const MethodTable counterMethods;
extern const MethodTable externalEventsAggregatorMethods;
extern const MethodTable loggerMethods;
extern const MethodTable productStatsMethods;

}  // namespace vantrace
