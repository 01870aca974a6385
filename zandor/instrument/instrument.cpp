#include "zandor/instrument/instrument.hpp"

#include <algorithm>
#include <memory>
#include <new>

#include "blocks.hpp"
#include "control_registry.hpp"
#include "delivery.hpp"
#include "listener_array.hpp"
#include "short_delivery.hpp"
#include "zandor/instrument/controls.hpp"
#include "zandor/instrument/decided_events.hpp"
#include "zandor/instrument/plain_events.hpp"

namespace instrument {
namespace detail {
namespace {

std::string_view keepText(std::string_view text, TextCache& texts) {
    if (const InternedText* kept = texts.intern(text))
        return kept->view();
    throw std::bad_alloc();
}

ContextArg keepArg(const ContextArg& arg, TextCache& texts) {
    const std::string_view name = keepText(arg.name, texts);
    if (arg.value.kind() != ContextValue::Kind::text)
        return {name, arg.value};
    return {name, keepText(arg.value.text(), texts)};
}

void deliverStart(ThreadState& state, const Opaque* handle, ContextArgs given, EventId id) {
    callListeners<&InstrumentListener::onStart>(
        state, handle, EventContextAccess::ofArgs(state, state.source, given, false), id);
}

void deliverStop(ThreadState& state, const Opaque* handle, const KeptContext& kept, EventId id) {
    // What a parent had open at a fork, it closes itself.
    if (id.sourceId < firstSourceId.load(std::memory_order_relaxed)) [[unlikely]]
        return;
    const KeptArgs context(kept);
    callListeners<&InstrumentListener::onStop>(
        state, handle, EventContextAccess::ofArgs(state, state.source, context.args(), true), id);
}

[[gnu::noinline]] void closeForAll(const Opaque* handle, const KeptContext& kept, EventId id) {
    const Inside inside;
    if (inside) [[likely]]
        deliverStop(inside.state(), handle, kept, id);
    else
        countSuppressed();
}

/// To the calling thread's pool where it has one.
struct GiveBack {
    void operator()(OpenScope* scope) const noexcept {
        if (ThreadState* state = ThreadState::find()) [[likely]] {
            state->scopes.giveBack(scope);
            return;
        }
        std::destroy_at(scope);
        freeBlock(scope, sizeof(OpenScope));
    }
};
using OpenScopePtr = std::unique_ptr<OpenScope, GiveBack>;

/// For a thread that is marked as inside.
[[gnu::always_inline]] inline OpenScopePtr keepScope(ThreadState& state, const Opaque* handle,
                                                     ContextArgs context, EventId id) {
    OpenScopePtr event(state.scopes.take(handle, id));
    if (!event)
        throw std::bad_alloc();
    event->context.keep(context, state.texts);
    return event;
}

[[gnu::noinline]] OpenScope* openForAll(const Opaque* handle, ContextArgs context) {
    const Inside inside;
    if (!inside) [[unlikely]] {
        countSuppressed();
        return nullptr;
    }
    OpenScopePtr event = keepScope(inside.state(), handle, context, takeId(inside.state()));
    deliverStart(inside.state(), handle, context, event->id);
    return event.release();
}

[[gnu::noinline]] void closeForAll(OpenScope* ended) noexcept {
    // Where the thread is in a listener already, or past its end, it has no mark of its own.
    const Inside inside;
    const OpenScopePtr event(ended);
    if (!listeners.anyActive())
        return;
    if (!inside) [[unlikely]]
        return countSuppressed();
    try {
        deliverStop(inside.state(), event->handle, event->context, event->id);
    } catch (...) {
        // Nobody can be told in a destructor.
    }
}

}  // namespace

void KeptContext::keep(ContextArgs context, TextCache& texts) {
    if (context.size() > fewEntries) [[unlikely]]
        return keepMany(context, texts);
    const Word* const end = encodeGiven(context, texts, few_);
    if (!end) [[unlikely]]
        throw std::bad_alloc();
    count_ = static_cast<std::uint32_t>(end - few_);
}

[[gnu::noinline]] void KeptContext::keepMany(ContextArgs context, TextCache& texts) {
    auto more = std::allocate_shared<ContextArg[]>(BlockAllocator<ContextArg>(), context.size());
    std::ranges::transform(context, more.get(),
                           [&](const ContextArg& arg) { return keepArg(arg, texts); });
    more_ = std::move(more);
    count_ = static_cast<std::uint32_t>(context.size());
}

EventId openEvent(const Opaque* handle, ContextArgs context, KeptContext& kept) {
    if (!isOnFor(handle, context))
        return disabledEventId;
    if (const InsideLane lane; lane) [[likely]] {
        kept.keep(context, lane.state().texts);
        if (!kept.isMany() && lane.begin<RecordKind::start>(handle, kept.few())) [[likely]]
            return latestId(lane.state());
    }
    const Inside inside;
    if (!inside) {
        countSuppressed();
        return suppressedEventId;
    }
    kept.keep(context, inside.state().texts);
    const EventId id = takeId(inside.state());
    deliverStart(inside.state(), handle, context, id);
    return id;
}

void closeEvent(const Opaque* handle, const KeptContext& kept, EventId id) {
    if (!listeners.anyHearsStops())
        return;
    if (kept.empty())
        return stopPlain(handle, id);
    if (const InsideLane lane; lane && !kept.isMany() && lane.stop(handle, {kept.few(), {}}, id))
        [[likely]]
        return;
    closeForAll(handle, kept, id);
}

Instrument LazyInstrument::resolve() const {
    const Opaque* handle = controls.getHandle(name_);
    // Pairs with the acquire in get.
    handle_.store(handle, std::memory_order_release);
    return Instrument(handle);
}

}  // namespace detail

const Opaque* Instrument::registerName(std::string_view name) {
    return controls.getHandle(name);
}

void Instrument::emitInstant(const Opaque* handle, ContextArgs context) {
    if (context.empty())
        instantPlain(handle);
    else if (detail::isOnFor(handle, context))
        tellInstant(handle, context);
}

detail::OpenScope* Scope::open(const Opaque* handle, ContextArgs context) {
    if (!detail::isOnFor(handle, context))
        return nullptr;
    if (const detail::InsideLane lane; lane) [[likely]] {
        detail::ThreadState& state = lane.state();
        detail::OpenScopePtr event =
            detail::keepScope(state, handle, context, detail::nextId(state));
        if (!event->context.isMany() &&
            lane.begin<detail::RecordKind::start>(handle, event->context.few())) [[likely]]
            return event.release();
    }
    return detail::openForAll(handle, context);
}

void Scope::close(detail::OpenScope* ended) noexcept {
    if (const detail::InsideLane lane; lane && !ended->context.isMany()) [[likely]] {
        if (lane.stop(ended->handle, {ended->context.few(), {}}, ended->id)) [[likely]]
            return lane.state().scopes.giveBack(ended);
    }
    detail::closeForAll(ended);
}

}  // namespace instrument
