#include "zandor/instrument/instrument.hpp"

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

std::string_view keepText(std::string_view text, ThreadState* state) {
    if (const InternedText* kept = state ? state->texts.intern(text) : intern(text))
        return kept->view();
    throw std::bad_alloc();
}

ContextArg keepArg(const ContextArg& arg, ThreadState* state) {
    const std::string_view name = keepText(arg.name, state);
    if (arg.value.kind() != ContextValue::Kind::text)
        return {name, arg.value};
    return {name, keepText(arg.value.text(), state)};
}

EventId nextId(ThreadState& state) noexcept {
    return {state.source.id, ++state.source.serial};
}

template <auto operation>
[[gnu::always_inline]] inline void tellListeners(ThreadState& state, const Opaque* handle,
                                                 ContextArgs kept, EventId id) {
    callListeners<operation>(state, handle,
                             EventContextAccess::ofArgs(state, state.source, kept, true), id);
}

[[gnu::always_inline]] inline void deliverStart(ThreadState& state, const Opaque* handle,
                                                ContextArgs kept, EventId id) {
    tellListeners<&InstrumentListener::onStart>(state, handle, kept, id);
}

[[gnu::always_inline]] inline void deliverStop(ThreadState& state, const Opaque* handle,
                                               ContextArgs kept, EventId id) {
    // What a parent had open at a fork, it closes itself.
    if (id.sourceId < firstSourceId.load(std::memory_order_relaxed)) [[unlikely]]
        return;
    tellListeners<&InstrumentListener::onStop>(state, handle, kept, id);
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

[[gnu::noinline]] void closeForAll(const Opaque* handle, ContextArgs kept, EventId id) {
    const Inside inside;
    if (inside) [[likely]]
        deliverStop(inside.state(), handle, kept, id);
    else
        countSuppressed();
}

[[gnu::noinline]] void closeShortly(const Opaque* handle, ContextArgs kept, EventId id) {
    if (!stopsMatter.load(std::memory_order_relaxed))
        return;
    if (const ShortDelivery several(shortListeners); several && several.stop(handle, {kept}, id))
        [[likely]]
        return;
    closeForAll(handle, kept, id);
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
    event->context.keep(context);
    return event;
}

[[gnu::noinline]] OpenScope* openForAll(const Opaque* handle, ContextArgs context) {
    if (const ShortDelivery several(shortListeners); several) [[likely]] {
        OpenScopePtr event = keepScope(several.state(), handle, context, several.nextId());
        if (several.begin<RecordKind::start>(handle, {event->context.args()}, event->id)) [[likely]]
            return event.release();
    }
    const Inside inside;
    if (!inside) [[unlikely]] {
        countSuppressed();
        return nullptr;
    }
    OpenScopePtr event = keepScope(inside.state(), handle, context, nextId(inside.state()));
    deliverStart(inside.state(), handle, event->context.args(), event->id);
    return event.release();
}

[[gnu::noinline]] void closeForAll(OpenScope* ended) noexcept {
    if (const ShortDelivery several(shortListeners); several) [[likely]] {
        if (several.stop(ended->handle, {ended->context.args()}, ended->id)) [[likely]]
            return several.state().scopes.giveBack(ended);
    }
    // Where the thread is in a listener already, or past its end, it has no mark of its own.
    const Inside inside;
    const OpenScopePtr event(ended);
    if (!listeners.anyActive())
        return;
    if (!inside) [[unlikely]]
        return countSuppressed();
    try {
        deliverStop(inside.state(), event->handle, event->context.args(), event->id);
    } catch (...) {
        // Nobody can be told in a destructor.
    }
}

}  // namespace

void KeptContext::keep(ContextArgs context) {
    ThreadState* state = ThreadState::find();
    ContextArg* place = few_;
    if (context.size() > fewEntries) {
        auto more =
            std::allocate_shared<ContextArg[]>(BlockAllocator<ContextArg>(), context.size());
        place = more.get();
        more_ = std::move(more);
    }
    for (const ContextArg& arg : context) {
        std::construct_at(place++, keepArg(arg, state));
        ++count_;
    }
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
    const Inside inside;
    if (!inside) {
        countSuppressed();
        return suppressedEventId;
    }
    if (!context.empty())
        kept.keep(context);
    const EventId id = nextId(inside.state());
    deliverStart(inside.state(), handle, kept.args(), id);
    return id;
}

void closeEvent(const Opaque* handle, ContextArgs kept, EventId id) {
    if (const ShortDelivery only(onlyRecorder); only && only.recordStop(handle, !kept.empty(), id))
        [[likely]]
        return;
    closeShortly(handle, kept, id);
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
        if (only.recordBegin<detail::RecordKind::start>(handle, {event->context.args()}, event->id))
            [[likely]]
            return event.release();
    }
    return detail::openForAll(handle, context);
}

void Scope::close(detail::OpenScope* ended) noexcept {
    if (const detail::ShortDelivery only(detail::onlyRecorder); only) [[likely]] {
        if (only.recordStop(ended->handle, !ended->context.args().empty(), ended->id)) [[likely]]
            return only.state().scopes.giveBack(ended);
    }
    detail::closeForAll(ended);
}

void Scope::close(const Opaque* handle, EventId id) noexcept {
    if (!listeners.anyActive())
        return;
    if (const detail::ShortDelivery only(detail::onlyRecorder);
        only && only.recordStop(handle, false, id)) [[likely]]
        return;
    try {
        detail::closeShortly(handle, {}, id);
    } catch (...) {
        // Nobody can be told in a destructor.
    }
}

}  // namespace instrument
