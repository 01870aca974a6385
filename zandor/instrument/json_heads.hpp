// How events of a name begin in a trace, which is the same for all of them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>

#include "zandor/instrument/instrument.hpp"

namespace instrument::detail {

/// Remembers beginnings of names that came of late, but for long ones. Instruments whose numbers
/// are near each other, as a program's are, do not displace each other.
class JsonHeads {
  public:
    JsonHeads() {
        if (!slots_)
            throw std::bad_alloc();
    }

    /// Puts what is remembered, for which there is room for `longest` bytes, and gives its end;
    /// null for nothing.
    char* put(char* at, const Opaque* instrument) const noexcept {
        const Slot& slot = slotOf(instrument);
        if (slot.instrument != instrument) [[unlikely]]
            return nullptr;
        // In parts of fixed size, which takes no call.
        std::memcpy(at, slot.text, firstPart);
        if (slot.length > firstPart)
            std::memcpy(at + firstPart, slot.text + firstPart, longest - firstPart);
        return at + slot.length;
    }
    void remember(const Opaque* instrument, std::string_view text) noexcept {
        if (text.size() > longest)
            return;
        Slot& slot = slotOf(instrument);
        slot.instrument = instrument;
        slot.length = static_cast<std::uint32_t>(text.copy(slot.text, longest));
    }

    static constexpr std::size_t longest = 116;

  private:
    static constexpr std::size_t firstPart = 64;
    static constexpr std::size_t slotCount = 4096;

    struct Slot {
        const Opaque* instrument;
        std::uint32_t length;
        char text[longest];
    };
    struct Free {
        void operator()(Slot* slots) const noexcept { std::free(slots); }
    };

    Slot& slotOf(const Opaque* instrument) const noexcept {
        return slots_[instrument->id % slotCount];
    }

    /// Zero, and no memory before they are used.
    std::unique_ptr<Slot[], Free> slots_{static_cast<Slot*>(std::calloc(slotCount, sizeof(Slot)))};
};

}  // namespace instrument::detail
