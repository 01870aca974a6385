#include "zandor/runtime/population.hpp"

#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <stdexcept>

#include "zandor/runtime/fork_locks.hpp"

namespace zandor {

struct Populator {
    const PopulationGuard* waitingFor = nullptr;  ///< guarded by registryLock
};

namespace {

constinit thread_local Populator thisThread;

// Changes with each population that ended. Released by the one who ended it, acquired by waiters.
constinit std::atomic<std::uint32_t> ended{0};

}  // namespace

bool PopulationGuard::isTaken() const noexcept {
    // A thread that was populating when its process forked does not go on in the child.
    return owner_ && process_ == getpid();
}

bool PopulationGuard::neededBy(const Populator& thread) const noexcept {
    for (const PopulationGuard* guard = this; guard && guard->isTaken();
         guard = guard->owner_->waitingFor) {
        if (guard->owner_ == &thread)
            return true;
    }
    return false;
}

PopulationGuard::Turn::Turn(PopulationGuard& guard, const std::string& name) : guard_(guard) {
    std::unique_lock lock(registryLock);
    while (guard.isTaken()) {
        if (guard.neededBy(thisThread)) {
            throw std::logic_error("the population of namespace \"" + name + "\" needs itself");
        }
        thisThread.waitingFor = &guard;
        const std::uint32_t before = ended.load(std::memory_order_acquire);
        lock.unlock();
        ended.wait(before, std::memory_order_acquire);
        lock.lock();
        thisThread.waitingFor = nullptr;
    }
    guard.owner_ = &thisThread;
    guard.process_ = getpid();
}

PopulationGuard::Turn::~Turn() {
    {
        const std::lock_guard lock(registryLock);
        guard_.owner_ = nullptr;
        ended.fetch_add(1, std::memory_order_release);
    }
    ended.notify_all();
}

}  // namespace zandor
