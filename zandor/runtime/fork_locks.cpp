#include "zandor/runtime/fork_locks.hpp"

#include <pthread.h>

#include <new>

#include "zandor/runtime/plugins.hpp"

namespace zandor {

constinit std::recursive_mutex loaderLock;
constinit std::mutex registryLock;
constinit std::mutex internLock;
constinit std::mutex poolLock;

namespace {

void lockAll() noexcept {
    loaderLock.lock();
    registryLock.lock();
    internLock.lock();
    poolLock.lock();
}

void unlockMost() noexcept {
    poolLock.unlock();
    internLock.unlock();
    registryLock.unlock();
}

void unlockInParent() noexcept {
    unlockMost();
    loaderLock.unlock();
}

void unlockInChild() noexcept {
    recountCallsAfterFork();
    unlockMost();
    // A recursive mutex knows its owner by a thread id, and the child's is another.
    new (&loaderLock) std::recursive_mutex;
}

[[maybe_unused]] const int registered = pthread_atfork(lockAll, unlockInParent, unlockInChild);

}  // namespace

}  // namespace zandor
