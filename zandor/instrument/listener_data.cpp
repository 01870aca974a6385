#include "zandor/instrument/listener_data.hpp"

#include "listener_slots.hpp"
#include "thread_state.hpp"

namespace instrument {

using detail::ListenerSlot;
using detail::ThreadState;

ListenerData::ListenerData() noexcept
    : number_(detail::nextListenerNumber()), place_(detail::takeListenerSlot()) {}

ListenerData::~ListenerData() {
    detail::freeListenerSlot(place_);
}

// The number is relaxed: who has the threads forget waits for those inside before it frees.

void* ListenerData::get() const noexcept {
    const ThreadState* const thread = ThreadState::find();
    if (!thread || place_ == ThreadState::listenerSlots)
        return nullptr;
    const ListenerSlot& slot = thread->listenerData[place_];
    return slot.number == number_.load(std::memory_order_relaxed) ? slot.data : nullptr;
}

void ListenerData::set(void* data) noexcept {
    ThreadState* const thread = ThreadState::find();
    if (thread && place_ != ThreadState::listenerSlots)
        thread->listenerData[place_] = {number_.load(std::memory_order_relaxed), data};
}

const void* ListenerData::thread() noexcept {
    return ThreadState::find();
}

bool ListenerData::isOfThread(const EventContext& context) noexcept {
    const ThreadState* const thread = ThreadState::find();
    return thread && thread->source.info == context.source();
}

void ListenerData::forgetAll() noexcept {
    number_.store(detail::nextListenerNumber(), std::memory_order_relaxed);
}

bool ListenerData::isInsideListener() noexcept {
    return detail::isInsideListener();
}

}  // namespace instrument
