// Reading memory of this process that may be freed meanwhile: what is not there is an answer, and
// no fault.
#pragma once

#include <cstddef>
#include <optional>
#include <type_traits>

namespace vantrace {

/// Copies `size` bytes from an address that may be anything; false where they are not all there.
/// Safe in any thread, and without the interpreter's lock: what is copied may be torn.
bool readOwnMemory(const void* address, void* out, std::size_t size) noexcept;

template <class Value>
std::optional<Value> valueAt(const void* address) noexcept {
    static_assert(std::is_trivially_copyable_v<Value>);
    Value value;
    if (!readOwnMemory(address, &value, sizeof value))
        return std::nullopt;
    return value;
}

}  // namespace vantrace
