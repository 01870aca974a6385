#include "vantrace/module/namespaces.hpp"

#include "vantrace/instrument/method_tables.hpp"
#include "vantrace/performance/method_tables.hpp"

namespace vantrace {

namespace {

constinit const NamespaceMaker childrenOfPerformance[] = {
    makeNamespace<UtilsNamespace>,
    makeNamespace<InstrumentNamespace>,
    makeNamespace<TaskManNamespace>,
    makeNamespace<ProductStatsNamespace>,
};

constinit const NamespaceMaker childrenOfInstrument[] = {
    makeNamespace<InstrumentsNamespace>, makeNamespace<ControlsNamespace>,
    makeNamespace<RecorderNamespace>,    makeNamespace<ProfilerNamespace>,
    makeNamespace<CounterNamespace>,     makeNamespace<ExternalEventsAggregatorNamespace>,
    makeNamespace<LoggerNamespace>,
};

}  // namespace

constinit const NamespaceTable performanceNamespace = {
    "performance", "Performance Utils and Diagnostics", childrenOfPerformance, nullptr};

constinit const NamespaceTable utilsNamespace = {"utils", "Utility", {}, &utilsMethods};

constinit const NamespaceTable instrumentNamespace = {"instrument", "Instrumentation API",
                                                      childrenOfInstrument, &instrumentMethods};

constinit const NamespaceTable taskManNamespace = {
    "cooperativeTaskManager", "CooperativeTaskManager", {}, &cooperativeTaskManagerMethods};

constinit const NamespaceTable productStatsNamespace = {
    "productStats", "Product Stats", {}, &productStatsMethods, Audience::insiders};

constinit const NamespaceTable instrumentsNamespace = {
    "instruments", "instrument instruments", {}, &instrumentsMethods};

constinit const NamespaceTable controlsNamespace = {
    "controls", "Instrument Controls", {}, &controlsMethods};

constinit const NamespaceTable recorderNamespace = {
    "recorder", "Instrument Recorder", {}, &recorderMethods};

constinit const NamespaceTable profilerNamespace = {
    "profiler", "Instrument Profiler", {}, &profilerMethods};

constinit const NamespaceTable counterNamespace = {
    "counter", "Instrument Counter", {}, &counterMethods};

constinit const NamespaceTable externalEventsAggregatorNamespace = {
    "externalEventsAggregator",
    "External instrumentation events aggregator",
    {},
    &externalEventsAggregatorMethods};

constinit const NamespaceTable loggerNamespace = {
    "logger", "Instrument Logger", {}, &loggerMethods};

}  // namespace vantrace
