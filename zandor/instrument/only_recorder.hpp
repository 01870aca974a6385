// The short way of an event whose only listener is a recorder: the record is put where it belongs
// without a call.
#pragma once

#include "listener_array.hpp"
#include "listener_class.hpp"
#include "recorder_hot.hpp"

namespace instrument::detail {

/// The calling thread's mark that it is inside the only listener, where that is a recorder. Empty
/// where anything is not as usual; then the general way decides what is.
class OnlyRecorder {
  public:
    [[gnu::always_inline]] OnlyRecorder() noexcept {
        ThreadState* const state = threadLocals.state;
        if (!recorderIsAlone.load(std::memory_order_relaxed) || !state->isOfThisThread() ||
            state->isInside() || !ticksAreTsc())
            return;
        state_ = state;
        if (InstrumentListener* const only = protectOnlyListener(*state)) [[likely]]
            recorder_ = recorderIn(*only);
    }
    [[gnu::always_inline]] ~OnlyRecorder() {
        // Release pairs with the acquire of those who wait for the listener.
        if (state_) [[likely]]
            state_->calling.store(nullptr, std::memory_order_release);
    }
    OnlyRecorder(const OnlyRecorder&) = delete;
    OnlyRecorder& operator=(const OnlyRecorder&) = delete;

    explicit operator bool() const noexcept { return recorder_ != nullptr; }

    ThreadState& state() const noexcept { return *state_; }
    /// The identity that a start is to be told with; it is taken when start says so.
    EventId nextId() const noexcept { return {state_->source.id, state_->source.serial + 1}; }
    [[gnu::always_inline]] bool start(const Opaque* handle, ContextArgs kept,
                                      EventId id) const noexcept {
        if (!putStart(*recorder_, origin(), handle, kept, id, readTsc)) [[unlikely]]
            return false;
        state_->source.serial = id.serialId;
        return true;
    }
    [[gnu::always_inline]] bool stop(const Opaque* handle, bool hasContext,
                                     EventId id) const noexcept {
        return putStop(*recorder_, origin(), handle, hasContext, id, readTsc);
    }

  private:
    EdgeOrigin origin() const noexcept {
        return {state_->listenerData.data(), state_->source.info};
    }

    ThreadState* state_ = nullptr;
    const RecorderCore* recorder_ = nullptr;
};

}  // namespace instrument::detail
