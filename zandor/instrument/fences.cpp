#include "zandor/instrument/fences.hpp"

#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace instrument::detail {
namespace {

bool membarrier(int command) noexcept {
    return syscall(SYS_membarrier, command, 0, 0) == 0;
}

}  // namespace

constinit std::atomic<bool> heavyFenceReachesAll{false};

void heavyFence() noexcept {
    std::atomic_thread_fence(std::memory_order_seq_cst);
    if (membarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED))
        return;
    if (membarrier(MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED) &&
        membarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED))
        heavyFenceReachesAll.store(true, std::memory_order_relaxed);
}

}  // namespace instrument::detail
