// The namespace "recorder": events recorded and read back.
#include "zandor/instrument/recorder.hpp"

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "vantrace/instrument/context_entries.hpp"
#include "vantrace/instrument/listening.hpp"
#include "vantrace/instrument/method_tables.hpp"
#include "vantrace/instrument/nanoseconds.hpp"
#include "vantrace/instrument/record_arrays.hpp"
#include "zandor/instrument/exports.hpp"

namespace vantrace {

using instrument::InstrumentRecorder;
using instrument::TimeSystem;

namespace {

InstrumentRecorder theRecorder;
constinit Listening listening(theRecorder);

bool isActive() {
    return listening.isActive();
}
void start() {
    listening.start();
}
void stop() {
    listening.stop();
}
void clearAllEventData() {
    theRecorder.clearAllEventData();
}

template <typename Record>
Composed plain(const std::vector<Record>& records) {
    return Composed(toPlainStructArray(records));
}

template <typename Record>
Composed contextColumns(const std::vector<Record>& records) {
    return Composed(toContextColumnsStructArray(records));
}

template <typename Record>
Composed display(const std::vector<Record>& records) {
    return Composed(toDisplayStructArray(records));
}

// Event points.

Composed getAllEventPoints() {
    return display(theRecorder.getAllEventPoints());
}

Composed getEventPoints(const std::string& name) {
    return contextColumns(theRecorder.getEventPoints(name));
}

Composed getEventPointsForContext(const std::string& name, const Strings& context) {
    return contextColumns(theRecorder.getEventPointsForContext(name, makeContextEntries(context)));
}

// Complete events.

Composed getAllEvents() {
    return display(theRecorder.getAllEvents());
}

Composed getEvents(const std::string& name) {
    return contextColumns(theRecorder.getEvents(name));
}

Composed getEventsForContext(const std::string& name, const Strings& context) {
    return contextColumns(theRecorder.getEventsForContext(name, makeContextEntries(context)));
}

// Statistics. A single record becomes an array of one.

using Stats = std::vector<InstrumentRecorder::EventStats>;

Composed getAllEventStats() {
    return plain(theRecorder.getAllEventStats());
}

Composed getAllEventStatsByContext() {
    return display(theRecorder.getAllEventStatsByContext());
}

Composed getAllEventStatsByContextEntry() {
    return display(theRecorder.getAllEventStatsByContextEntry());
}

Composed getEventStats(const std::string& name) {
    return plain(Stats{theRecorder.getEventStats(name)});
}

Composed getEventStatsByContext(const std::string& name) {
    return contextColumns(theRecorder.getEventStatsByContext(name));
}

Composed getEventStatsByContextEntry(const std::string& name) {
    return contextColumns(theRecorder.getEventStatsByContextEntry(name));
}

Composed getEventStatsForContext(const std::string& name, const Strings& context) {
    const auto entries = makeContextEntries(context);
    return contextColumns(Stats{theRecorder.getEventStatsForContext(name, entries)});
}

// Exports.

Composed getAllEventsCollapsedStacks() {
    const Strings stacks = instrument::getAllEventsCollapsedStacks(theRecorder);
    matrix::Array cell = matrix::detail::do_create_cell(1, stacks.size());
    for (std::size_t i = 0; i < stacks.size(); ++i)
        matrix::hx::hxSetCell(cell.get(), i, matrix::to_zandor(matrix::create(stacks[i])));
    return Composed(matrix::to_zandor(std::move(cell)));
}

/// A negative minimum keeps every event.
Composed traceJson(TimeSystem timeSystem, std::int64_t minimumDuration) {
    const std::string json = instrument::getAllCompleteEventsTraceEventJson(
        theRecorder, timeSystem, std::chrono::nanoseconds(minimumDuration));
    return Composed(matrix::to_zandor(matrix::create(json)));
}

Composed getAllCompleteEventsTraceEventJson() {
    return traceJson(TimeSystem::monotonic, -1);
}

Composed getAllCompleteEventsTraceEventJsonWithUTC() {
    return traceJson(TimeSystem::utc, -1);
}

Composed getAllCompleteEventsTraceEventJsonWithFilter(double seconds) {
    return traceJson(TimeSystem::monotonic, toCount(seconds * nanosecondsPerSecond));
}

constinit const MethodRow rows[] = {
    {"isActive", isActive},
    {"start", start},
    {"stop", stop},
    {"clearAllEventData", clearAllEventData},
    {"getAllEventPoints", getAllEventPoints},
    {"getEventPoints", getEventPoints},
    {"getEventPointsForContext", getEventPointsForContext},
    {"getAllEvents", getAllEvents},
    {"getEvents", getEvents},
    {"getEventsForContext", getEventsForContext},
    {"getAllEventStats", getAllEventStats},
    {"getAllEventStatsByContext", getAllEventStatsByContext},
    {"getAllEventStatsByContextEntry", getAllEventStatsByContextEntry},
    {"getEventStats", getEventStats},
    {"getEventStatsByContext", getEventStatsByContext},
    {"getEventStatsByContextEntry", getEventStatsByContextEntry},
    {"getEventStatsForContext", getEventStatsForContext},
    {"getAllEventsCollapsedStacks", getAllEventsCollapsedStacks},
    {"getAllCompleteEventsTraceEventJson", getAllCompleteEventsTraceEventJson},
    {"getAllCompleteEventsTraceEventJsonWithUTC", getAllCompleteEventsTraceEventJsonWithUTC},
    {"getAllCompleteEventsTraceEventJsonWithFilter", getAllCompleteEventsTraceEventJsonWithFilter},
};

}  // namespace

constinit const MethodTable recorderMethods = rows;

}  // namespace vantrace
