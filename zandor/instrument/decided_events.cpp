#include "zandor/instrument/decided_events.hpp"

#include "short_delivery.hpp"

namespace instrument {

using namespace detail;

namespace {

/// An identity that nobody was told.
constexpr EventId none{};

template <RecordKind kind>
[[gnu::noinline]] EventId beginShortly(const Opaque* handle, ContextArgs context) {
    if (const ShortDelivery several(shortListeners); several) [[likely]] {
        const FewWords few(context, several.state().texts);
        const EventId id = several.nextId();
        if (few && several.begin<kind>(handle, few.words(), id)) [[likely]]
            return id;
    }
    return none;
}

/// None where it has to go the general way.
template <RecordKind kind>
[[gnu::always_inline]] inline EventId begin(const Opaque* handle, ContextArgs context) {
    if (context.size() > KeptContext::fewEntries) [[unlikely]]
        return none;
    if (const ShortDelivery only(onlyRecorder); only) [[likely]] {
        const FewWords few(context, only.state().texts);
        const EventId id = only.nextId();
        if (few && only.recordBegin<kind>(handle, few.words(), id)) [[likely]]
            return id;
    }
    return beginShortly<kind>(handle, context);
}

[[gnu::noinline]] void stopShortly(const Opaque* handle, ContextArgs context, EventId id) {
    if (!stopsMatter.load(std::memory_order_relaxed))
        return;
    if (const ShortDelivery several(shortListeners); several) [[likely]] {
        if (several.stop(handle, {{}, context}, id)) [[likely]]
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
