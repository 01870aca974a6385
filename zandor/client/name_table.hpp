// The names that a ring has told its reader, each once.
#pragma once

#include <cstddef>
#include <cstdint>

#include "zandor/client/shared_memory.hpp"
#include "zandor/client/wire.hpp"

namespace zandor::client {

/// Of one ring, used by its thread alone. All-zero is closed.
class NameTable {
  public:
    /// Names will be written to `room`. False where the system gives no memory.
    bool open(char* room, std::uint32_t roomBytes, std::uint32_t* end) noexcept;
    void close() noexcept { unmap(memory_); }

    /// Gives a name's offset in `id`; false, with the cause, where it cannot be told.
    bool find(const char* name, std::uint32_t& id, wire::Drop& cause) noexcept {
        const Recent& recent = recentOf(name);
        // The characters behind an address may be others than last time.
        if (recent.address == name && isAt(recent.id, name)) [[likely]] {
            id = recent.id;
            return true;
        }
        return findByText(name, id, cause);
    }

  private:
    struct Recent {
        const char* address;
        std::uint32_t id;
    };
    static constexpr std::size_t recentCount = 64;

    Recent& recentOf(const char* name) const noexcept {
        const auto address = reinterpret_cast<std::uintptr_t>(name);
        return memory_.as<Recent>()[(address ^ address >> 6) % recentCount];
    }
    std::uint32_t* slots() const noexcept {
        return reinterpret_cast<std::uint32_t*>(memory_.as<Recent>() + recentCount);
    }
    const char* textAt(std::uint32_t id) const noexcept {
        return room_ + id + sizeof(wire::NameHead);
    }
    bool isAt(std::uint32_t id, const char* name) const noexcept {
        return __builtin_strcmp(textAt(id), name) == 0;
    }
    bool findByText(const char* name, std::uint32_t& id, wire::Drop& cause) noexcept;
    bool append(const char* name, std::size_t length, std::uint32_t& id) noexcept;

    Mapping memory_;
    char* room_;
    std::uint32_t* end_;  // the reader's word of how far names go
    std::uint32_t roomBytes_;
    std::uint32_t slotCount_;  // a power of two, at least twice the names that there is room for
};

}  // namespace zandor::client
