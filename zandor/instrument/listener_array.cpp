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
    return memory ? ::new (memory) ListenerArray{count, nullptr, {}} : nullptr;
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
        used = used || state.snapshot.load(std::memory_order_acquire) == array ||
               state.calling.load(std::memory_order_acquire) == array->mark();
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

void addCall(ShortListeners::Calls& calls, ShortOperations::Operation tell,
             const Registration& registration) noexcept {
    if (tell)
        *std::ranges::find(calls, nullptr, &ShortCall::tell) = {
            tell, registration.shortWay->self(), registration.listener,
            registration.shortWay->operations().ignoresContext};
}

/// False where it has no short way, or there is one recorder already.
bool addShortly(ShortListeners& all, const Registration& registration) noexcept {
    if (const RecorderCore* const recorder = recorderIn(*registration.listener)) {
        all.needsTicks = true;
        return !std::exchange(all.recorder, recorder);
    }
    if (!registration.shortWay)
        return false;
    const ShortOperations& way = registration.shortWay->operations();
    all.needsTime = all.needsTime || way.needsTime;
    all.needsTicks = all.needsTicks || way.needsTime;
    addCall(all.instants, way.instant, registration);
    addCall(all.starts, way.start, registration);
    addCall(all.stops, way.stop, registration);
    return true;
}

/// Threads that go the short way have no fence of their own.
bool needNoFence() noexcept {
    if (!heavyFenceReachesAll.load(std::memory_order_relaxed))
        heavyFence();
    return heavyFenceReachesAll.load(std::memory_order_relaxed);
}

/// Whether all of them have a short way; then the array has what these need.
bool prepareShortWay(ListenerArray& array) noexcept {
    return array.count <= ShortListeners::most && needNoFence() &&
           std::ranges::all_of(array, [&](const Registration* registration) {
               return !registration->removed.load(std::memory_order_relaxed) &&
                      addShortly(array.shortly, *registration);
           });
}

void publishShortWays(const ListenerArray* ofRecorder, const ListenerArray* ofAll) noexcept {
    // Release pairs with the acquire in ShortDelivery.
    onlyRecorder.store(ofRecorder, std::memory_order_release);
    shortListeners.store(ofAll, std::memory_order_release);
    outdateLanes();
}

// The flags may lag behind the array by a moment, but never for good.
void publish(ListenerArray* array) noexcept {
    if (array)
        for (Registration* registration : *array)
            ++registration->arrays;
    const bool isShort = array && prepareShortWay(*array);
    const bool areStopsIgnored =
        !array || (isShort && !array->shortly.recorder && !array->shortly.stops.front().tell);
    // Whoever sees a listener that hears stops must see this, too.
    if (!areStopsIgnored)
        stopsMatter.store(true, std::memory_order_relaxed);
    // Release pairs with the acquire in protectListeners.
    ListenerArray* old = listenersInForce.exchange(array, std::memory_order_acq_rel);
    // Release pairs with the acquire in protectOnlyListener.
    InstrumentListener* const only = onlyOneOf(array);
    onlyListener.store(only, std::memory_order_release);
    const bool isRecorder = isShort && array->count == 1 && array->shortly.recorder;
    publishShortWays(isRecorder ? array : nullptr, isShort ? array : nullptr);
    if (areStopsIgnored)
        stopsMatter.store(false, std::memory_order_relaxed);
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
constinit std::atomic<const ListenerArray*> shortListeners{nullptr};
constinit std::atomic<const ListenerArray*> onlyRecorder{nullptr};
constinit std::atomic<bool> stopsMatter{false};

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
    const ListenerArray& old = *arrayInForce();
    if (old.count == 1)
        return publish(nullptr);
    // Without memory for a smaller array the mark alone keeps calls away, where it is looked at.
    publishShortWays(nullptr, nullptr);
    if (ListenerArray* made = makeArray(old.count - 1)) {
        std::remove_copy(old.begin(), old.end(), placesOf(*made), leaving);
        publish(made);
    }
}

}  // namespace instrument::detail
