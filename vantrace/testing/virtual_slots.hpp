// Where virtual operations stand in the tables that the compiler makes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace vantrace_testing {

/// The slot of a virtual operation: a pointer to such a member is one more than its place in bytes.
template <typename Member>
std::size_t slotOf(Member member) {
    std::uintptr_t word = 0;
    std::memcpy(&word, &member, sizeof word);
    return (word - 1) / sizeof(void*);
}

/// What stands in a slot of an object's table.
inline const void* entryIn(const void* object, std::size_t slot) {
    const void* const* table = nullptr;
    std::memcpy(&table, object, sizeof table);
    return table[slot];
}

}  // namespace vantrace_testing
