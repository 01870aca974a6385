// The namespace "logger": events printed on the console.
#include "vantrace/instrument/deferred_printf.hpp"
#include "vantrace/instrument/instrument_logger.hpp"
#include "vantrace/instrument/listening.hpp"
#include "vantrace/instrument/method_tables.hpp"

namespace vantrace {

namespace {

instrument::InstrumentLogger theLogger;
constinit Listening listening(theLogger);

bool isActive() {
    return listening.isActive();
}

void start() {
    // Without a line end: the first event's line follows on the same line of the console.
    instrument::deferredPrintf("Performance Logging started");
    listening.start();
}

void stop() {
    listening.stop();
}

constinit const MethodRow rows[] = {
    {"isActive", isActive},
    {"start", start},
    {"stop", stop},
};

}  // namespace

constinit const MethodTable loggerMethods = rows;

}  // namespace vantrace
