// The tree that the library publishes: one class for each namespace.
//
//   performance
//     utils, instrument, cooperativeTaskManager, productStats
//   instrument
//     instruments, controls, recorder, profiler, counter, externalEventsAggregator, logger
#pragma once

#include "vantrace/module/published_namespace.hpp"

namespace vantrace {

extern const NamespaceTable performanceNamespace;
extern const NamespaceTable utilsNamespace;
extern const NamespaceTable instrumentNamespace;
extern const NamespaceTable taskManNamespace;
extern const NamespaceTable productStatsNamespace;
extern const NamespaceTable instrumentsNamespace;
extern const NamespaceTable controlsNamespace;
extern const NamespaceTable recorderNamespace;
extern const NamespaceTable profilerNamespace;
extern const NamespaceTable counterNamespace;
extern const NamespaceTable externalEventsAggregatorNamespace;
extern const NamespaceTable loggerNamespace;

class PerformanceNamespace : public PublishedNamespace<performanceNamespace> {};
class UtilsNamespace : public PublishedNamespace<utilsNamespace> {};
class InstrumentNamespace : public PublishedNamespace<instrumentNamespace> {};
class TaskManNamespace : public PublishedNamespace<taskManNamespace> {};
class ProductStatsNamespace : public PublishedNamespace<productStatsNamespace> {};
class InstrumentsNamespace : public PublishedNamespace<instrumentsNamespace> {};
class ControlsNamespace : public PublishedNamespace<controlsNamespace> {};
class RecorderNamespace : public PublishedNamespace<recorderNamespace> {};
class ProfilerNamespace : public PublishedNamespace<profilerNamespace> {};
class CounterNamespace : public PublishedNamespace<counterNamespace> {};
class ExternalEventsAggregatorNamespace
    : public PublishedNamespace<externalEventsAggregatorNamespace> {};
class LoggerNamespace : public PublishedNamespace<loggerNamespace> {};

}  // namespace vantrace
