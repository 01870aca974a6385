#include "name_table.hpp"

#include <string.h>

#include <atomic>

namespace zandor::client {

namespace {

std::uint32_t hashOf(const char* text, std::size_t length) noexcept {
    std::uint64_t hash = 0xcbf29ce484222325;
    for (std::size_t i = 0; i < length; ++i)
        hash = (hash ^ static_cast<unsigned char>(text[i])) * 0x100000001b3;
    return static_cast<std::uint32_t>(hash ^ hash >> 32);
}

std::uint32_t slotsFor(std::uint32_t roomBytes) noexcept {
    constexpr std::uint32_t leastName = sizeof(wire::NameHead) + 8;
    std::uint32_t count = 1;
    while (count < 2 * (roomBytes / leastName))
        count *= 2;
    return count;
}

}  // namespace

bool NameTable::open(char* room, std::uint32_t roomBytes, std::uint32_t* end) noexcept {
    slotCount_ = slotsFor(roomBytes);
    memory_ = mapPrivate(recentCount * sizeof(Recent) + slotCount_ * sizeof(std::uint32_t));
    room_ = room;
    roomBytes_ = roomBytes;
    end_ = end;
    return static_cast<bool>(memory_);
}

bool NameTable::findByText(const char* name, std::uint32_t& id, wire::Drop& cause) noexcept {
    const std::size_t length = strnlen(name, wire::longestName + 1);
    if (length > wire::longestName) {
        cause = wire::Drop::oversize;
        return false;
    }
    std::uint32_t slot = hashOf(name, length) & (slotCount_ - 1);
    for (; slots()[slot] != 0; slot = (slot + 1) & (slotCount_ - 1)) {
        id = slots()[slot] - 1;
        if (isAt(id, name)) {
            recentOf(name) = {name, id};
            return true;
        }
    }
    if (!append(name, length, id)) {
        cause = wire::Drop::names;
        return false;
    }
    slots()[slot] = id + 1;
    recentOf(name) = {name, id};
    return true;
}

bool NameTable::append(const char* name, std::size_t length, std::uint32_t& id) noexcept {
    const std::uint64_t bytes = wire::upToEight(sizeof(wire::NameHead) + length + 1);
    id = *end_;
    if (bytes > roomBytes_ - id)
        return false;
    const wire::NameHead head{static_cast<std::uint32_t>(length), 0};
    memcpy(room_ + id, &head, sizeof head);
    memcpy(room_ + id + sizeof head, name, length + 1);
    // Release pairs with the reader's copies by pread, of the end first: whoever sees the new end,
    // and the record that names it, sees the name.
    std::atomic_ref(*end_).store(static_cast<std::uint32_t>(id + bytes), std::memory_order_release);
    return true;
}

}  // namespace zandor::client
