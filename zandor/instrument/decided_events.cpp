#include "zandor/instrument/decided_events.hpp"

#include "listener_array.hpp"
#include "short_delivery.hpp"

namespace instrument {

using namespace detail;

namespace {

/// An identity that nobody was told.
constexpr EventId none{};

/// None where it has to go the general way.
template <RecordKind kind>
[[gnu::always_inline]] inline EventId begin(const Opaque* handle, ContextArgs context) {
    if (context.size() > KeptContext::fewEntries) [[unlikely]]
        return none;
    if (const InsideLane lane; lane) [[likely]] {
        const FewWords few(context, lane.state().texts);
        if (few && lane.begin<kind>(handle, few.words())) [[likely]]
            return latestId(lane.state());
    }
    return none;
}

}  // namespace

EventId tellStart(const Opaque* handle, ContextArgs context) {
    const EventId id = begin<RecordKind::start>(handle, context);
    return id != none ? id : listeners.onEventStart(handle, context);
}

void tellStop(const Opaque* handle, ContextArgs context, EventId id) {
    if (!listeners.anyHearsStops())
        return;
    if (const InsideLane lane; lane && lane.stop(handle, {{}, context}, id)) [[likely]]
        return;
    listeners.onEventStop(handle, context, id);
}

EventId tellInstant(const Opaque* handle, ContextArgs context) {
    const EventId id = begin<RecordKind::instant>(handle, context);
    return id != none ? id : listeners.onEventInstant(handle, context);
}

}  // namespace instrument
