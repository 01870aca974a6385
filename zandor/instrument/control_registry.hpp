// The instruments of the process: their names, switches and rules.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string_view>

#include "interned_text.hpp"
#include "zandor/instrument/control_element.hpp"
#include "zandor/instrument/instrument.hpp"

namespace instrument::detail {

/// Events that carry this entry are on or off.
struct Rule {
    const InternedText* name;
    const InternedText* value;
    bool on;
};

/// Rules ordered by name and value, never empty, never changed; they follow the head.
struct RuleList {
    std::uint32_t count;
    RuleList* nextRetired;

    const Rule* begin() const noexcept { return reinterpret_cast<const Rule*>(this + 1); }
    const Rule* end() const noexcept { return begin() + count; }
    const Rule* find(std::string_view name, std::string_view value) const noexcept;
};

enum class Switch : std::uint8_t { unset, off, on };

/// What individual calls said of an instrument. Valid as long as `epoch` is that of the Mode; else
/// nothing was said.
struct ElementState {
    // Under the controls' lock: relaxed. Only the epoch is released, for the child of a fork, which
    // acquires the whole by being copied.
    std::atomic<std::uint64_t> epoch{0};
    std::atomic<Switch> plain{Switch::unset};
    std::atomic<RuleList*> rules{nullptr};
};

/// An instrument, registered or only mentioned.
struct Element : ControlElement {
    /// Whether some code asked for the handle. Relaxed: it publishes nothing but itself.
    std::atomic<bool> registered{false};
    std::atomic<const RuleList*> rulesInForce{nullptr};
    ElementState own;
    ElementState since;

    std::string_view key() const noexcept { return {name, nameLength}; }
    static const Element& of(const Opaque* handle) noexcept {
        return static_cast<const Element&>(ControlElement::of(handle));
    }
};

/// The instrument of this name; null when nobody asked for or mentioned it. Takes no lock.
Element* findElement(std::string_view name) noexcept;
/// The instrument of this number; null for one that was never given.
ZANDOR_INSTRUMENT_API const Opaque* instrumentFromId(std::uint32_t id) noexcept;

/// Where the instrument stands; null where nobody said.
inline const InternedText* placeOf(const Opaque& instrument) noexcept {
    // Pairs with the release in Controls::setPlace.
    const char* const place = instrument.place.load(std::memory_order_acquire);
    return place ? &InternedText::of(place) : nullptr;
}

bool isOnByRules(const Opaque* handle, ContextArgs context) noexcept;
/// Whether an event of this instrument with this context is on. Takes no lock.
inline bool isOnFor(const Opaque* handle, ContextArgs context) noexcept {
    if (!context.empty() && handle->hasContextRules.load(std::memory_order_relaxed)) [[unlikely]]
        return isOnByRules(handle, context);
    return handle->enabled.load(std::memory_order_relaxed);
}

/// To be called before this process uses what a child does not inherit: settles what a fork may
/// have caught halfway. Cheap when that was done.
void enterProcess() noexcept;

}  // namespace instrument::detail
