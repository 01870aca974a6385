// How events of a name begin in a trace, which is the same for all of them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>

#include "zandor/instrument/instrument.hpp"

namespace instrument::detail {

/// Remembers beginnings of names that came of late, but for long ones.
class JsonHeads {
  public:
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
    static constexpr unsigned slotBits = 10;

    struct Slot {
        const Opaque* instrument;
        std::uint32_t length;
        char text[longest];
    };

    Slot& slotOf(const Opaque* instrument) const noexcept {
        const auto address = reinterpret_cast<std::uintptr_t>(instrument);
        return slots_[(address * std::uint64_t{0x9e37'79b9'7f4a'7c15}) >> (64 - slotBits)];
    }

    std::unique_ptr<Slot[]> slots_ = std::make_unique<Slot[]>(std::size_t{1} << slotBits);
};

}  // namespace instrument::detail
