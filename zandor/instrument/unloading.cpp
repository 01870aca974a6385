#include "unloading.hpp"

#include <atomic>

#include "listener_array.hpp"
#include "listener_class.hpp"
#include "process_state.hpp"
#include "zandor/instrument/listeners.hpp"
#include "zandor/runtime/zandor.hpp"

namespace instrument::detail {
namespace {

InstrumentListener* anyListenerIn(const zandor::LibraryRange& range) noexcept {
    const Locked locked(processState().listeners);
    if (const ListenerArray* array = listenersInForce.load(std::memory_order_relaxed))
        for (const Registration* registration : *array)
            if (!registration->removed.load(std::memory_order_relaxed) &&
                (range.contains(registration->listener) ||
                 range.contains(tableOf(*registration->listener))))
                return registration->listener;
    return nullptr;
}

void letGo(const zandor::LibraryRange& range) noexcept {
    while (InstrumentListener* listener = anyListenerIn(range))
        listeners.remove(*listener);
}

}  // namespace

void observeUnloading() {
    // Relaxed where it is only looked at: the exchange makes the first one.
    static constinit std::atomic<bool> observing{false};
    if (observing.load(std::memory_order_relaxed) || observing.exchange(true))
        return;
    zandor::addUnloadObserver(letGo);
}

}  // namespace instrument::detail
