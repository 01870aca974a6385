// Places for what a thread's open scopes keep, at hand without a lock.
#pragma once

#include <cstdint>
#include <memory>

#include "blocks.hpp"
#include "process_state.hpp"
#include "zandor/instrument/instrument.hpp"

namespace instrument::detail {

/// An event that a Scope opened. In memory that a child keeps, for a scope that is open at a fork.
struct OpenScope {
    const Opaque* handle;
    EventId id;
    KeptContext context;
};

/// All-zero is empty. Its thread uses it while it is marked as inside a delivery, so that no signal
/// handler does meanwhile.
class ScopePool {
  public:
    /// Null when the system gives no memory.
    OpenScope* take(const Opaque* handle, EventId id) noexcept {
        void* place = free_;
        if (place) [[likely]]
            unlink();
        else
            place = allocateBlock(sizeof(OpenScope));
        return place ? ::new (place) OpenScope{handle, id, {}} : nullptr;
    }
    /// One that this or another thread's pool gave.
    void giveBack(OpenScope* scope) noexcept {
        std::destroy_at(scope);
        if (count_ == most) [[unlikely]]
            return freeBlock(scope, sizeof(OpenScope));
        free_ = ::new (scope) FreeBlock{free_};
        ++count_;
    }
    void clear() noexcept {
        while (FreeBlock* place = free_) {
            unlink();
            freeBlock(place, sizeof(OpenScope));
        }
    }

  private:
    // Scopes may end on another thread than the one that opened them.
    static constexpr std::uint32_t most = 1024;

    void unlink() noexcept {
        free_ = free_->next;
        --count_;
    }

    FreeBlock* free_;
    std::uint32_t count_;
};

}  // namespace instrument::detail
