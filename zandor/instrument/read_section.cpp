#include "read_section.hpp"

#include <sched.h>

namespace instrument::detail {
namespace {

bool leaves(const ThreadState& state) noexcept {
    constexpr int patience = 1000;
    const std::uint64_t first = state.readSections.load(std::memory_order_acquire);
    if (!(first & 1))
        return true;
    if (&state == ThreadState::find())
        return false;  // a signal handler came inside
    for (int i = 0; i < patience; ++i) {
        if (state.readSections.load(std::memory_order_acquire) != first)
            return true;
        sched_yield();
    }
    return false;
}

}  // namespace

bool everybodyLeft() noexcept {
    heavyFence();
    bool all = true;
    forEachThread([&](const ThreadState& state) { all = all && leaves(state); });
    return all;
}

}  // namespace instrument::detail
