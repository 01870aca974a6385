// Switching instruments on and off, as a whole and by context entry.
//
// Each name, registered or only mentioned, has its own state: a switch, at first off, and rules;
// every individual call changes it. While the enable-all flag is up it has a second state, which
// holds only the individual calls made since the last enableAll(true), and that state is in force:
// its switch (on when no call set it) and its rules. With the flag down the own state is in force.
//
// Among the rules that match an event, off wins; a newer rule for an entry replaces an older one.
// Switching may lock; asking never does. From any thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <string_view>

#include "zandor/instrument/context.hpp"
#include "zandor/instrument/control_element.hpp"
#include "zandor/instrument/export.hpp"

namespace instrument {

/// There is one, `controls`, initialised before any code runs and never destroyed.
class ZANDOR_INSTRUMENT_API Controls {
  public:
    /// Whether enableAll(true) is in force. Relaxed.
    std::atomic<bool> allEnabled{false};

    constexpr Controls() noexcept = default;
    Controls(const Controls&) = delete;
    Controls& operator=(const Controls&) = delete;

    bool wereAllEnabled() const noexcept { return allEnabled.load(std::memory_order_relaxed); }

    /// The instrument of this name, registered if it was not. Throws std::invalid_argument for a
    /// name with a NUL inside. A known name is found without a lock.
    const Opaque* getHandle(std::string_view name);
    /// Says where in a program the instrument stands; what was said first stays. Throws
    /// std::bad_alloc.
    void setPlace(const Opaque* handle, std::string_view file, std::uint32_t line);
    /// Whether some code asked for the handle.
    bool has(std::string_view name) const;

    bool isEnabled(std::string_view name) const;
    bool isEnabled(std::string_view name, const ContextSet& context) const;

    void enable(std::string_view name);
    void enable(std::string_view name, const ContextEntry& entry);
    void disable(std::string_view name);
    void disable(std::string_view name, const ContextEntry& entry);

    /// true: raises the flag and forgets the individual calls made since an earlier one. false:
    /// lowers it and forgets them; every name is as its own state says.
    void enableAll(bool on);
    /// Lowers the flag and resets every name to off without rules.
    void disableAll();

  private:
    [[maybe_unused]] std::uint8_t reserved_[63]{};
};
static_assert(sizeof(Controls) == 64);

extern ZANDOR_INSTRUMENT_API constinit Controls controls;

}  // namespace instrument
