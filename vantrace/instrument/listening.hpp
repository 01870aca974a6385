// Starting and stopping one of the library's own listeners.
#pragma once

#include <atomic>

#include "zandor/instrument/listener.hpp"

namespace vantrace {

/// Registers a listener and switches every instrument on while it listens. Two starts without a
/// stop lose the switch's state from before the first: the stop then leaves everything on. Of
/// starts and stops that threads make at once, some last one decides.
class Listening {
  public:
    constexpr explicit Listening(instrument::InstrumentListener& listener) noexcept
        : listener_(listener) {}

    bool isActive() const;
    void start();
    /// Gives back the enable-all state that the last start found, off without one.
    void stop();

  private:
    instrument::InstrumentListener& listener_;
    std::atomic<bool> savedEnableAll_ = false;
};

}  // namespace vantrace
