#include "zandor/instrument/literal_context.hpp"

#include "control_registry.hpp"
#include "delivery.hpp"
#include "short_delivery.hpp"

namespace instrument {

using namespace detail;

namespace {

using Words = std::array<Word, LiteralContext::most>;

/// A start or an instant by the lane; an identity of all zeros where it has to go the general way.
template <RecordKind kind>
[[gnu::always_inline]] inline EventId beginByLane(const Opaque* handle,
                                                  const LiteralContext& context) noexcept {
    const InsideLane lane;
    if (!lane) [[unlikely]]
        return {};
    Words words;
    const std::size_t count = context.words(words.data(), lane.state().texts);
    if (count == 0 || !lane.begin<kind>(handle, {words.data(), count})) [[unlikely]]
        return {};
    return latestId(lane.state());
}

[[gnu::noinline]] void closeForAll(const Opaque* handle, ContextArgs context, EventId id) noexcept {
    const Inside inside;
    if (!inside)
        return countSuppressed();
    // What a parent had open at a fork, it closes itself.
    if (id.sourceId < firstSourceId.load(std::memory_order_relaxed)) [[unlikely]]
        return;
    ThreadState& state = inside.state();
    try {
        callListeners<&InstrumentListener::onStop>(
            state, handle, EventContextAccess::ofArgs(state, state.source, context, false), id);
    } catch (...) {
        // Nobody can be told in a destructor.
    }
}

}  // namespace

std::size_t LiteralContext::find(std::uint64_t* out, TextCache& texts) const noexcept {
    if (!encodeGiven(args(), texts, out))
        return 0;
    for (std::size_t i = 0; i < count_; ++i)
        words_[i].store(out[i], std::memory_order_relaxed);
    // Pairs with the acquire in words.
    isKnown_.store(true, std::memory_order_release);
    return count_;
}

EventId detail::openEvent(const Opaque* handle, const LiteralContext& context) {
    if (!isOnFor(handle, context.args()))
        return disabledEventId;
    const EventId id = beginByLane<RecordKind::start>(handle, context);
    return id != EventId() ? id : listeners.onEventStart(handle, context.args());
}

void Instrument::emitInstant(const Opaque* handle, const LiteralContext& context) {
    if (!isOnFor(handle, context.args()))
        return;
    if (beginByLane<RecordKind::instant>(handle, context) == EventId())
        listeners.onEventInstant(handle, context.args());
}

void Scope::close(const Opaque* handle, const LiteralContext& context, EventId id) noexcept {
    if (const InsideLane lane; lane && lane.stop(handle, {{}, context.args()}, id)) [[likely]]
        return;
    closeForAll(handle, context.args(), id);
}

}  // namespace instrument
