#include "zandor/instrument/decided_events.hpp"

#include "short_delivery.hpp"

namespace instrument {

using namespace detail;

namespace {

/// An identity that nobody was told.
constexpr EventId none{};

EdgeContext given(ContextArgs context, const ShortDelivery& delivery) noexcept {
    return {context, &delivery.state().texts};
}

template <RecordKind kind>
[[gnu::noinline]] EventId beginShortly(const Opaque* handle, ContextArgs context) {
    if (const ShortDelivery several(shortListeners); several) [[likely]] {
        const EventId id = several.nextId();
        if (several.begin<kind>(handle, given(context, several), id)) [[likely]]
            return id;
    }
    return none;
}

/// None where it has to go the general way.
template <RecordKind kind>
[[gnu::always_inline]] inline EventId begin(const Opaque* handle, ContextArgs context) {
    if (const ShortDelivery only(onlyRecorder); only) [[likely]] {
        const EventId id = only.nextId();
        if (only.recordBegin<kind>(handle, given(context, only), id)) [[likely]]
            return id;
    }
    return beginShortly<kind>(handle, context);
}

[[gnu::noinline]] void stopShortly(const Opaque* handle, ContextArgs context, EventId id) {
    if (!stopsMatter.load(std::memory_order_relaxed))
        return;
    if (const ShortDelivery several(shortListeners); several) [[likely]] {
        if (several.stop(handle, given(context, several), id)) [[likely]]
            return;
    }
    listeners.onEventStop(handle, context, id);
}

}  // namespace

EventId tellStart(const Opaque* handle, ContextArgs context) {
    const EventId id = begin<RecordKind::start>(handle, context);
    return id != none ? id : listeners.onEventStart(handle, context);
}

void tellStop(const Opaque* handle, ContextArgs context, EventId id) {
    if (const ShortDelivery only(onlyRecorder);
        only && only.recordStop(handle, !context.empty(), id)) [[likely]]
        return;
    stopShortly(handle, context, id);
}

EventId tellInstant(const Opaque* handle, ContextArgs context) {
    const EventId id = begin<RecordKind::instant>(handle, context);
    return id != none ? id : listeners.onEventInstant(handle, context);
}

}  // namespace instrument
