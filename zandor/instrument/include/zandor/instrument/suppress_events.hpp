// Keeping a thread's own events from being delivered for a while.
#pragma once

#include "zandor/instrument/export.hpp"

namespace instrument {

namespace detail {
struct ThreadState;
}

/// As if the calling thread were inside a listener: until the scope ends, events that it produces
/// are counted and not delivered. For code that the host runs on its own behalf, such as the user's
/// stream that console output goes to. Scopes nest. Begins and ends on one thread.
class ZANDOR_INSTRUMENT_API SuppressEvents {
  public:
    SuppressEvents() noexcept;
    ~SuppressEvents();
    SuppressEvents(const SuppressEvents&) = delete;
    SuppressEvents& operator=(const SuppressEvents&) = delete;

  private:
    detail::ThreadState* state_;  ///< where this scope made the mark; null where there was one
};

}  // namespace instrument
