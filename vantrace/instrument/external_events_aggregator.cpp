// The namespace "externalEventsAggregator": events of external clients taken in.
#include "vantrace/instrument/method_tables.hpp"
#include "zandor/performance/aggregator.hpp"

namespace vantrace {

namespace {

instrument::ExternalEventsAggregator theAggregator;

void start() {
    theAggregator.start();
}
void stop() {
    theAggregator.stop();
}
void collectEvents() {
    theAggregator.collectEvents();
}
void refreshActiveClients() {
    theAggregator.refreshActiveClients();
}

constinit const MethodRow rows[] = {
    {"start", start},
    {"stop", stop},
    {"collectEvents", collectEvents},
    {"refreshActiveClients", refreshActiveClients},
};

}  // namespace

constinit const MethodTable externalEventsAggregatorMethods = rows;

}  // namespace vantrace
