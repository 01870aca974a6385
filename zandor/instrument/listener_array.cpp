#include "listener_array.hpp"

#include <algorithm>
#include <new>
#include <utility>

#include "blocks.hpp"
#include "listener_class.hpp"
#include "process_state.hpp"

namespace instrument::detail {
namespace {

std::size_t sizeFor(std::uint32_t count) noexcept {
    return sizeof(ListenerArray) + count * sizeof(Registration*);
}

ListenerArray* makeArray(std::uint32_t count) noexcept {
    void* memory = allocateBlock(sizeFor(count));
    return memory ? ::new (memory) ListenerArray{count, nullptr, false, nullptr} : nullptr;
}

Registration** placesOf(ListenerArray& array) noexcept {
    return reinterpret_cast<Registration**>(&array + 1);
}

void freeArray(ListenerArray* array) noexcept {
    for (Registration* registration : *array)
        if (--registration->arrays == 0)
            freeBlock(registration, sizeof(Registration));
    freeBlock(array, sizeFor(array->count));
}

bool isInUse(const ListenerArray* array) noexcept {
    bool used = false;
    forEachThread([&](const ThreadState& state) {
        used = used || state.snapshot.load(std::memory_order_acquire) == array;
    });
    return used;
}

void freeRetiredListeners() noexcept {
    heavyFence();
    ListenerArray** place = &processState().retiredListeners;
    while (ListenerArray* array = *place) {
        if (isInUse(array)) {
            place = &array->nextRetired;
            continue;
        }
        *place = array->nextRetired;
        freeArray(array);
    }
}

InstrumentListener* onlyOneOf(const ListenerArray* array) noexcept {
    if (!array || array->count != 1)
        return nullptr;
    const Registration& registration = **array->begin();
    return registration.removed.load(std::memory_order_relaxed) ? nullptr : registration.listener;
}

/// Whether the listeners of the array can be told by lanes; notes its recorder.
bool canAllBeShort(ListenerArray& array) noexcept {
    return array.count <= LaneCalls::most &&
           std::ranges::all_of(array, [&](const Registration* registration) {
               if (registration->removed.load(std::memory_order_relaxed))
                   return false;
               const RecorderCore* const recorder = recorderIn(*registration->listener);
               return recorder ? !std::exchange(array.recorder, recorder)
                               : registration->shortWay != nullptr;
           });
}

bool hearsStops(const Registration* registration) noexcept {
    return !registration->shortWay || registration->shortWay->operations().stop;
}

/// Threads that go the short way have no fence of their own.
bool needNoFence() noexcept {
    if (!heavyFenceReachesAll.load(std::memory_order_relaxed))
        heavyFence();
    return heavyFenceReachesAll.load(std::memory_order_relaxed);
}

// The flags may lag behind the array by a moment, but never for good.
void publish(ListenerArray* array) noexcept {
    if (array)
        for (Registration* registration : *array)
            ++registration->arrays;
    if (array)
        array->isShort = canAllBeShort(*array) && needNoFence();
    const bool areStopsIgnored =
        !array || (array->isShort && std::ranges::none_of(*array, hearsStops));
    // Whoever sees a listener that hears stops must see this, too.
    if (!areStopsIgnored)
        listeners.anyListenerHearsStops.store(true, std::memory_order_relaxed);
    // Release pairs with the acquire in protectListeners.
    ListenerArray* old = listenersInForce.exchange(array, std::memory_order_acq_rel);
    // Release pairs with the acquire in protectOnlyListener.
    InstrumentListener* const only = onlyOneOf(array);
    onlyListener.store(only, std::memory_order_release);
    lanesArePossible.store(array && array->isShort, std::memory_order_relaxed);
    outdateLanes();
    if (areStopsIgnored)
        listeners.anyListenerHearsStops.store(false, std::memory_order_relaxed);
    listeners.anyListenerActive.store(array != nullptr, std::memory_order_relaxed);
    if (old) {
        ListenerArray*& retired = processState().retiredListeners;
        old->nextRetired = retired;
        retired = old;
    }
    freeRetiredListeners();
}

ListenerArray* arrayInForce() noexcept {
    return listenersInForce.load(std::memory_order_relaxed);
}

Registration* makeRegistration(InstrumentListener& listener) noexcept {
    void* memory = allocateBlock(sizeof(Registration));
    return memory ? ::new (memory) Registration{&listener, ShortWay::of(listener), 0, {false}}
                  : nullptr;
}

}  // namespace

constinit std::atomic<ListenerArray*> listenersInForce{nullptr};
constinit std::atomic<InstrumentListener*> onlyListener{nullptr};
constinit std::atomic<bool> lanesArePossible{false};

Registration* findRegistration(const InstrumentListener& listener) noexcept {
    if (const ListenerArray* array = arrayInForce())
        for (Registration* registration : *array)
            if (registration->listener == &listener &&
                !registration->removed.load(std::memory_order_relaxed))
                return registration;
    return nullptr;
}

void registerListener(InstrumentListener& listener) {
    const ListenerArray* old = arrayInForce();
    const std::uint32_t count = old ? old->count : 0;
    Registration* added = makeRegistration(listener);
    ListenerArray* made = added ? makeArray(count + 1) : nullptr;
    if (!made) {
        if (added)
            freeBlock(added, sizeof(Registration));
        throw std::bad_alloc();
    }
    if (old)
        std::copy(old->begin(), old->end(), placesOf(*made));
    placesOf(*made)[count] = added;
    publish(made);
}

void unregisterListener(InstrumentListener& listener) noexcept {
    Registration* leaving = findRegistration(listener);
    if (!leaving)
        return;
    // Release: what was done before the removal is seen by whoever skips the listener.
    leaving->removed.store(true, std::memory_order_release);
    outdateLanes();
    const ListenerArray& old = *arrayInForce();
    if (old.count == 1)
        return publish(nullptr);
    // Without memory for a smaller array the mark alone keeps calls away.
    if (ListenerArray* made = makeArray(old.count - 1)) {
        std::remove_copy(old.begin(), old.end(), placesOf(*made), leaving);
        publish(made);
    }
}

}  // namespace instrument::detail
