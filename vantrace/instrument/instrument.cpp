// The namespace "instrument" itself: a test event, and whether anybody listens.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>

#include "vantrace/instrument/events.hpp"
#include "vantrace/instrument/method_tables.hpp"
#include "vantrace/instrument/nanoseconds.hpp"
#include "zandor/instrument/controls.hpp"
#include "zandor/instrument/listeners.hpp"

namespace vantrace {

using instrument::controls;
using instrument::EventId;
using instrument::listeners;
using instrument::Opaque;

namespace {

constexpr char testInstrument[] = "InstrumentPackage::testAPI_addSomethingToInstrumentation";

void addInstant() {
    static const Opaque* const handle = controls.getHandle(testInstrument);
    // Relaxed: a switch, which publishes nothing besides itself.
    if (listeners.anyActive() && handle->enabled.load(std::memory_order_relaxed))
        listeners.onEventInstant(handle, {}, std::nullopt);
}

std::int64_t steadyTime() {
    const auto time = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::nanoseconds(time).count();
}

void keepBusy(double seconds) {
    const double now = static_cast<double>(steadyTime());
    const std::int64_t deadline = toCount(now + seconds * nanosecondsPerSecond);
    while (steadyTime() < deadline) {
    }
}

void addTimed(double seconds) {
    static const Opaque* const handle = controls.getHandle(testInstrument);
    const EventId id = beginInstrumentEvent(handle, {}, std::nullopt);
    keepBusy(seconds);
    endInstrumentEvent(handle, {}, id, std::nullopt);
}

void addSomethingToInstrumentation(double seconds) {
    if (seconds == 0.0)
        addInstant();
    else
        addTimed(seconds);
}

bool areAnyListenersActive() {
    return listeners.anyActive();
}

constinit const MethodRow rows[] = {
    {"testAPI_addSomethingToInstrumentation", addSomethingToInstrumentation},
    {"areAnyListenersActive", areAnyListenersActive},
};

}  // namespace

constinit const MethodTable instrumentMethods = rows;

}  // namespace vantrace
