#include "zandor/instrument/instrument.hpp"

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

EventId openEvent(const Opaque* handle, ContextArgs context, KeptContext& kept) {
    if (!isOnFor(handle, context))
        return disabledEventId;
    const Inside inside;
    if (!inside)
        return suppressedEventId;
    if (!context.empty())
        kept.keep(context);
    ThreadSource& source = inside.state().source;
    const EventContext told = EventContextAccess::ofArgs(kept.args(), true, source.info);
    const EventId id{source.id, ++source.serial};
    callListeners<&InstrumentListener::onStart>(inside, handle, told, id);
    return id;
}

void closeEvent(const Opaque* handle, const KeptContext& kept, EventId id) {
    const Inside inside;
    if (!inside)
        return;
    const EventContext told =
        EventContextAccess::ofArgs(kept.args(), true, inside.state().source.info);
    callListeners<&InstrumentListener::onStop>(inside, handle, told, id);
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

void Scope::open(const Opaque* handle, ContextArgs context) {
    struct Undo {
        detail::KeptContext* context;
        ~Undo() {
            if (context)
                std::destroy_at(context);
        }
    } undo{std::construct_at(&open_.context)};
    open_.id = detail::openEvent(handle, context, open_.context);
    if (open_.id.sourceId == 0)
        return;
    undo.context = nullptr;
    handle_ = handle;
}

void Scope::close() noexcept {
    try {
        if (listeners.anyActive())
            detail::closeEvent(handle_, open_.context, open_.id);
    } catch (...) {
        // Nobody can be told in a destructor.
    }
    std::destroy_at(&open_.context);
}

}  // namespace instrument
