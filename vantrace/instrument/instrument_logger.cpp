#include "vantrace/instrument/instrument_logger.hpp"

#include "vantrace/instrument/deferred_printf.hpp"
#include "zandor/performance/timers.hpp"

namespace instrument {

namespace {

// What the formats' %llu and %lld take.
unsigned long long natural(std::uint64_t number) {
    return number;
}
long long whole(std::int64_t number) {
    return number;
}

}  // namespace

InstrumentLogger::InstrumentLogger() : printer_(deferredPrintf) {
    outliveByDeferredLines();
}

InstrumentLogger::~InstrumentLogger() {
    listeners.remove(*this);
}

void InstrumentLogger::onInstant(const Opaque* instrument, const EventContext&, EventId id) {
    printTimed("[%10llu, %9llu] INSTANT: %-60s ; thread %llu; ID %llu\n", instrument, id);
}

void InstrumentLogger::onStart(const Opaque* instrument, const EventContext&, EventId id) {
    printTimed("[%10llu, %9llu] START: %-60s ; thread %llu; ID %llu\n", instrument, id);
}

void InstrumentLogger::onStop(const Opaque* instrument, const EventContext&, EventId id) {
    printTimed("[%10llu, %9llu] STOP: %-60s ; thread %llu; ID %llu\n", instrument, id);
}

void InstrumentLogger::onInstantAt(const Opaque* instrument, const EventContext&, EventId id,
                                   std::int64_t time) {
    printAt("%s instant; sourceId=%llu; serialId=%llu; time=%lld\n", instrument, id, time);
}

void InstrumentLogger::onStartAt(const Opaque* instrument, const EventContext&, EventId id,
                                 std::int64_t time) {
    printAt("%s started; sourceId=%llu; serialId=%llu; time=%lld\n", instrument, id, time);
}

void InstrumentLogger::onStopAt(const Opaque* instrument, const EventContext&, EventId id,
                                std::int64_t time) {
    printAt("%s stopped; sourceId=%llu; serialId=%llu; time=%lld\n", instrument, id, time);
}

void InstrumentLogger::printTimed(const char* format, const Opaque* instrument, EventId id) {
    const std::int64_t now = Performance::GetMicrosecondTimer().count();
    const std::int64_t previous = lastLineTime_.exchange(now, std::memory_order_relaxed);
    const std::int64_t delta = previous == 0 ? 0 : now - previous;
    printer_(format, natural(static_cast<std::uint64_t>(now)),
             natural(static_cast<std::uint64_t>(delta)), instrument->name, natural(id.sourceId),
             natural(id.serialId));
}

void InstrumentLogger::printAt(const char* format, const Opaque* instrument, EventId id,
                               std::int64_t time) {
    printer_(format, instrument->name, natural(id.sourceId), natural(id.serialId), whole(time));
}

}  // namespace instrument
