#include "zandor/instrument/instrument.hpp"

#include <algorithm>
#include <memory>
#include <new>

#include "blocks.hpp"
#include "control_registry.hpp"
#include "delivery.hpp"
#include "short_delivery.hpp"
#include "zandor/instrument/controls.hpp"
#include "zandor/instrument/decided_events.hpp"

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

EventId nextId(ThreadState& state) noexcept {
    return {state.source.id, ++state.source.serial};
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

/// Decided already.
[[gnu::noinline]] EventId openForAll(const Opaque* handle) {
    const Inside inside;
    if (!inside) [[unlikely]] {
        countSuppressed();
        return suppressedEventId;
    }
    const EventId id = nextId(inside.state());
    deliverStart(inside.state(), handle, {}, id);
    return id;
}

[[gnu::noinline]] EventId openShortly(const Opaque* handle) {
    if (const ShortDelivery several(shortListeners); several) [[likely]] {
        if (const EventId id = several.nextId(); several.begin<RecordKind::start>(handle, {}, id))
            [[likely]]
            return id;
    }
    return openForAll(handle);
}

[[gnu::noinline]] void closeForAll(const Opaque* handle, const KeptContext& kept, EventId id) {
    const Inside inside;
    if (inside) [[likely]]
        deliverStop(inside.state(), handle, kept, id);
    else
        countSuppressed();
}

[[gnu::noinline]] void closeShortly(const Opaque* handle, EventId id) {
    if (const ShortDelivery several(shortListeners); several && several.stop(handle, {}, id))
        [[likely]]
        return;
    closeForAll(handle, {}, id);
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
    OpenScopePtr event = keepScope(inside.state(), handle, context, nextId(inside.state()));
    deliverStart(inside.state(), handle, context, event->id);
    return event.release();
}

[[gnu::noinline]] OpenScope* openShortly(const Opaque* handle, ContextArgs context) {
    if (const ShortDelivery several(shortListeners); several) [[likely]] {
        OpenScopePtr event = keepScope(several.state(), handle, context, several.nextId());
        if (!event->context.isMany() &&
            several.begin<RecordKind::start>(handle, event->context.few(), event->id)) [[likely]]
            return event.release();
    }
    return openForAll(handle, context);
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

[[gnu::noinline]] void closeShortly(OpenScope* ended) noexcept {
    if (const ShortDelivery several(shortListeners); several && !ended->context.isMany())
        [[likely]] {
        if (several.stop(ended->handle, {ended->context.few(), {}}, ended->id)) [[likely]]
            return several.state().scopes.giveBack(ended);
    }
    closeForAll(ended);
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

EventId openEvent(const Opaque* handle) {
    if (!handle->enabled.load(std::memory_order_relaxed)) [[unlikely]]
        return disabledEventId;
    if (const ShortDelivery only(onlyRecorder); only) [[likely]] {
        if (const EventId id = only.nextId(); only.recordBegin<RecordKind::start>(handle, {}, id))
            [[likely]]
            return id;
    }
    return openShortly(handle);
}

EventId openEvent(const Opaque* handle, ContextArgs context, KeptContext& kept) {
    if (!isOnFor(handle, context))
        return disabledEventId;
    if (const ShortDelivery several(shortListeners); several) [[likely]] {
        kept.keep(context, several.state().texts);
        const EventId id = several.nextId();
        if (!kept.isMany() && several.begin<RecordKind::start>(handle, kept.few(), id)) [[likely]]
            return id;
    }
    const Inside inside;
    if (!inside) {
        countSuppressed();
        return suppressedEventId;
    }
    kept.keep(context, inside.state().texts);
    const EventId id = nextId(inside.state());
    deliverStart(inside.state(), handle, context, id);
    return id;
}

void closeEvent(const Opaque* handle, const KeptContext& kept, EventId id) {
    if (!stopsMatter.load(std::memory_order_relaxed))
        return;
    if (const ShortDelivery several(shortListeners);
        several && !kept.isMany() && several.stop(handle, {kept.few(), {}}, id)) [[likely]]
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
    if (detail::isOnFor(handle, context))
        tellInstant(handle, context);
}

detail::OpenScope* Scope::open(const Opaque* handle, ContextArgs context) {
    if (!detail::isOnFor(handle, context))
        return nullptr;
    if (const detail::ShortDelivery only(detail::onlyRecorder); only) [[likely]] {
        detail::OpenScopePtr event =
            detail::keepScope(only.state(), handle, context, only.nextId());
        if (!event->context.isMany() && only.recordBegin<detail::RecordKind::start>(
                                            handle, event->context.few(), event->id)) [[likely]]
            return event.release();
    }
    return detail::openShortly(handle, context);
}

void Scope::close(detail::OpenScope* ended) noexcept {
    if (const detail::ShortDelivery only(detail::onlyRecorder); only) [[likely]] {
        if (only.recordStop(ended->handle, !ended->context.empty(), ended->id)) [[likely]]
            return only.state().scopes.giveBack(ended);
    }
    detail::closeShortly(ended);
}

void Scope::close(const Opaque* handle, EventId id) noexcept {
    if (!detail::stopsMatter.load(std::memory_order_relaxed))
        return;
    if (const detail::ShortDelivery only(detail::onlyRecorder);
        only && only.recordStop(handle, false, id)) [[likely]]
        return;
    try {
        detail::closeShortly(handle, id);
    } catch (...) {
        // Nobody can be told in a destructor.
    }
}

}  // namespace instrument
