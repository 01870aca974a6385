// The namespace "counter": events counted.
#include "zandor/performance/counter.hpp"

#include <string>
#include <vector>

#include "vantrace/instrument/context_entries.hpp"
#include "vantrace/instrument/method_tables.hpp"
#include "vantrace/instrument/record_arrays.hpp"
#include "zandor/instrument/listeners.hpp"

namespace vantrace {

using instrument::InstrumentCounter;
using instrument::listeners;

namespace {

InstrumentCounter theCounter;

bool isActive() {
    return listeners.has(theCounter);
}

// Unlike the other listeners' methods, these leave the switches alone: what is counted is what is
// enabled.

void start() {
    listeners.add(theCounter);
}

void stop() {
    listeners.remove(theCounter);
}

void resetAllEventCounts() {
    theCounter.resetAllEventCounts();
}

void resetEventCount(const std::string& name) {
    theCounter.resetEventCount(name);
}

// A single record becomes an array of one.
using Counts = std::vector<InstrumentCounter::EventCount>;

Composed getAllEventCounts() {
    return Composed(toPlainStructArray(theCounter.getAllEventCounts()));
}

Composed getAllEventCountsByContext() {
    return Composed(toDisplayStructArray(theCounter.getAllEventCountsByContext()));
}

Composed getAllEventCountsByContextEntry() {
    return Composed(toDisplayStructArray(theCounter.getAllEventCountsByContextEntry()));
}

Composed getEventCount(const std::string& name) {
    return Composed(toPlainStructArray(Counts{theCounter.getEventCount(name)}));
}

Composed getEventCountsByContext(const std::string& name) {
    return Composed(toContextColumnsStructArray(theCounter.getEventCountsByContext(name)));
}

Composed getEventCountsByContextEntry(const std::string& name) {
    return Composed(toContextColumnsStructArray(theCounter.getEventCountsByContextEntry(name)));
}

Composed getEventCountForContext(const std::string& name, const Strings& context) {
    const auto entries = makeContextEntries(context);
    return Composed(
        toContextColumnsStructArray(Counts{theCounter.getEventCountForContext(name, entries)}));
}

constinit const MethodRow rows[] = {
    {"isActive", isActive},
    {"start", start},
    {"stop", stop},
    {"resetAllEventCounts", resetAllEventCounts},
    {"resetEventCount", resetEventCount},
    {"getAllEventCounts", getAllEventCounts},
    {"getAllEventCountsByContext", getAllEventCountsByContext},
    {"getAllEventCountsByContextEntry", getAllEventCountsByContextEntry},
    {"getEventCount", getEventCount},
    {"getEventCountsByContext", getEventCountsByContext},
    {"getEventCountsByContextEntry", getEventCountsByContextEntry},
    {"getEventCountForContext", getEventCountForContext},
};

}  // namespace

constinit const MethodTable counterMethods = rows;

}  // namespace vantrace
