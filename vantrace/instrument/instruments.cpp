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

/// The struct of an id that is not known yet: giving it needs no memory, so that an event that
/// began cannot be lost for want of it.
class IdStruct {
  public:
    IdStruct() {
        const char* const names[] = {"sourceId", "serialId"};
        StructArray array(1, names);
        array.set(0, 0, numberIn(sourceId_));
        array.set(0, 1, numberIn(serialId_));
        result_ = Composed(matrix::to_zandor(std::move(array).release()));
    }
    Composed of(EventId id) && noexcept {
        *sourceId_ = id.sourceId;
        *serialId_ = id.serialId;
        return std::move(result_);
    }

  private:
    static matrix::Array numberIn(std::uint64_t*& place) {
        matrix::Array number = uint64Value(0);
        place = static_cast<std::uint64_t*>(matrix::hx::hxGetData(number.get()));
        return number;
    }

    std::uint64_t* sourceId_ = nullptr;
    std::uint64_t* serialId_ = nullptr;
    Composed result_;
};

Composed startEvent(const std::string& name, const Strings& context) {
    const Opaque* handle = controls.getHandle(name);
    const MachineTag tag = callingMachine();
    const auto entries = makeContextEntries(context);
    IdStruct result;
    return std::move(result).of(beginInstrumentEvent(handle, entries, tag));
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
