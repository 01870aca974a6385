// Which place in the states of threads is whose.
#pragma once

#include <cstddef>
#include <cstdint>

namespace instrument::detail {

/// A place in the states of threads; their number when all are taken.
std::size_t takeListenerSlot() noexcept;
void freeListenerSlot(std::size_t slot) noexcept;

/// Never given before. 0 is nobody's.
std::uint64_t nextListenerNumber() noexcept;

}  // namespace instrument::detail
