// The switch of one instrument, as user programs inline it.
//
// The layout is frozen: programs compiled against it read the two flags directly. What a later
// version needs goes into the reserved bytes.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "zandor/instrument/export.hpp"

namespace boost::container {
// Declared here as Boost declares it, so that programs which only emit events need no Boost.
template <class Key, class Compare, class AllocatorOrContainer>
class flat_set;
}  // namespace boost::container

namespace instrument {

struct ContextEntry;
struct ContextEntryLessByName;
/// Context entries with distinct names, ordered by name. Include <zandor/instrument/context.hpp> to
/// use it.
using ContextSet = boost::container::flat_set<ContextEntry, ContextEntryLessByName, void>;

/// The verdict of an instrument's context rules.
enum class Enabled : std::int32_t { noRule = 0, enabled = 1, disabled = 2 };

/// What an instrument handle points to. It lives as long as the process.
struct Opaque {
    /// NUL-terminated UTF-8 (as given; never checked), alive as long as the process.
    const char* name;
    /// The plain switch. Written by Controls, read anywhere: relaxed, since nothing else is
    /// published by it.
    std::atomic<bool> enabled;
    /// Whether rules are in force that a non-empty context must be checked against. Relaxed: the
    /// rules themselves are acquired where they are asked.
    std::atomic<bool> hasContextRules;
    std::uint8_t reserved0[2];
    /// Dense number of the name, from 0.
    std::uint32_t id;
    /// Bytes of the name without the NUL.
    std::uint32_t nameLength;
    std::uint8_t reserved1[4];
    /// Where in a program it stands, as "file:line", NUL-terminated and alive as long as the
    /// process; null where nobody said. Acquire pairs with the release in Controls::setPlace.
    std::atomic<const char*> place;
};
static_assert(sizeof(Opaque) == 32);
static_assert(offsetof(Opaque, name) == 0);
static_assert(offsetof(Opaque, enabled) == 8);
static_assert(offsetof(Opaque, hasContextRules) == 9);
static_assert(offsetof(Opaque, id) == 12);
static_assert(offsetof(Opaque, nameLength) == 16);
static_assert(offsetof(Opaque, place) == 24);

/// The control element behind a handle.
class ZANDOR_INSTRUMENT_API ControlElement : public Opaque {
  public:
    static const ControlElement& of(const Opaque* handle) noexcept {
        return *static_cast<const ControlElement*>(handle);
    }
    /// The verdict of the rules in force for events with this context. Takes no lock.
    Enabled getContextEnabledImpl(const ContextSet& context) const;
};

}  // namespace instrument
