#include "zandor/instrument/instrument.hpp"

#include <memory>
#include <new>

#include "blocks.hpp"
#include "control_registry.hpp"
#include "delivery.hpp"
#include "zandor/instrument/controls.hpp"

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

[[gnu::always_inline]] inline void deliverStart(ThreadState& state, const Opaque* handle,
                                                ContextArgs kept, EventId id) {
    callListeners<&InstrumentListener::onStart>(
        state, handle, EventContextAccess::ofArgs(kept, true, state.source.info), id);
}

[[gnu::always_inline]] inline void deliverStop(ThreadState& state, const Opaque* handle,
                                               ContextArgs kept, EventId id) {
    // What a parent had open at a fork, it closes itself.
    if (id.sourceId < firstSourceId.load(std::memory_order_relaxed)) [[unlikely]]
        return;
    callListeners<&InstrumentListener::onStop>(
        state, handle, EventContextAccess::ofArgs(kept, true, state.source.info), id);
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
    const Inside inside;
    if (!inside) [[unlikely]] {
        countSuppressed();
        return suppressedEventId;
    }
    const EventId id = nextId(inside.state());
    deliverStart(inside.state(), handle, {}, id);
    return id;
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
    const Inside inside;
    if (inside) [[likely]]
        deliverStop(inside.state(), handle, kept, id);
    else
        countSuppressed();
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
        listeners.onEventInstant(handle, context);
}

detail::OpenScope* Scope::open(const Opaque* handle, ContextArgs context) {
    if (!detail::isOnFor(handle, context))
        return nullptr;
    const detail::Inside inside;
    if (!inside) [[unlikely]] {
        detail::countSuppressed();
        return nullptr;
    }
    detail::ThreadState& state = inside.state();
    detail::OpenScopePtr event(state.scopes.take(handle, detail::nextId(state)));
    if (!event)
        throw std::bad_alloc();
    if (!context.empty())
        event->context.keep(context);
    detail::deliverStart(state, handle, event->context.args(), event->id);
    return event.release();
}

void Scope::close(detail::OpenScope* ended) noexcept {
    // Where the thread is in a listener already, or past its end, it has no mark of its own.
    const detail::Inside inside;
    const detail::OpenScopePtr event(ended);
    if (!listeners.anyActive())
        return;
    if (!inside) [[unlikely]]
        return detail::countSuppressed();
    try {
        detail::deliverStop(inside.state(), event->handle, event->context.args(), event->id);
    } catch (...) {
        // Nobody can be told in a destructor.
    }
}

void Scope::close(const Opaque* handle, EventId id) noexcept {
    if (!listeners.anyActive())
        return;
    try {
        detail::closeEvent(handle, {}, id);
    } catch (...) {
        // As above.
    }
}

}  // namespace instrument
