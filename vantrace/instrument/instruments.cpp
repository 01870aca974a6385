// The namespace "instruments": events that host code starts and stops by name.
#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "vantrace/instrument/context_entries.hpp"
#include "vantrace/instrument/events.hpp"
#include "vantrace/instrument/method_tables.hpp"
#include "vantrace/instrument/struct_array.hpp"
#include "zandor/instrument/controls.hpp"
#include "zandor/runtime/context.hpp"

namespace vantrace {

using instrument::controls;
using instrument::EventId;
using instrument::Opaque;

namespace {

MachineTag callingMachine() {
    const zdutil::contextmgr::KtxID id = zdutil::contextmgr::ContextRegistry::getKtxID();
    return id == zdutil::contextmgr::BlessedKtxID ? std::nullopt : MachineTag(id);
}

matrix::Array toStruct(EventId id) {
    const char* const names[] = {"sourceId", "serialId"};
    StructArray array(1, names);
    array.set(0, 0, uint64Value(id.sourceId));
    array.set(0, 1, uint64Value(id.serialId));
    return std::move(array).release();
}

Composed startEvent(const std::string& name, const Strings& context) {
    const Opaque* handle = controls.getHandle(name);
    const MachineTag tag = callingMachine();
    const EventId id = beginInstrumentEvent(handle, makeContextEntries(context), tag);
    return Composed(matrix::to_zandor(toStruct(id)));
}

void stopEvent(const std::string& name, const Strings& context, std::uint64_t sourceId,
               std::uint64_t serialId) {
    const Opaque* handle = controls.getHandle(name);
    const MachineTag tag = callingMachine();
    endInstrumentEvent(handle, makeContextEntries(context), {sourceId, serialId}, tag);
}

constinit const MethodRow rows[] = {
    {"startEvent", startEvent},
    {"stopEvent", stopEvent},
};

}  // namespace

constinit const MethodTable instrumentsMethods = rows;

}  // namespace vantrace
