#include "zandor/instrument/listener_data.hpp"

#include "listener_slots.hpp"
#include "thread_state.hpp"

namespace instrument {

using detail::ThreadState;

ListenerData::ListenerData() noexcept
    : age_(detail::nextListenerNumber()), place_(detail::takeListenerSlot()) {}

ListenerData::~ListenerData() {
    detail::freeListenerSlot(place_);
}

std::uint64_t ListenerData::age() const noexcept {
    // Pairs with the release in forgetAll: in the new age nothing of the old is found.
    return age_.load(std::memory_order_acquire);
}

void ListenerData::set(void* data, std::uint64_t age) noexcept {
    ThreadState* const thread = ThreadState::find();
    if (thread && place_ != detail::listenerSlots)
        thread->listenerData[place_] = {age, data};
}

const void* ListenerData::thread() noexcept {
    return ThreadState::find();
}

bool ListenerData::isOfThread(const EventContext& context) noexcept {
    const ThreadState* const thread = ThreadState::find();
    return thread && thread->source.info == context.source();
}

void ListenerData::forgetAll() noexcept {
    // Pairs with the acquire in age.
    age_.store(detail::nextListenerNumber(), std::memory_order_release);
    detail::outdateLanes();
}

bool ListenerData::isInsideListener() noexcept {
    return detail::isInsideListener();
}

}  // namespace instrument
