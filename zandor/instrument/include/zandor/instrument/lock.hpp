// The library's lock: all-zero is open, so it may stand in memory that is wiped on fork; while it
// is held, signals wait, so that a handler that emits events never meets a lock of its own thread.
#pragma once

#include <pthread.h>
#include <signal.h>

#include <atomic>

namespace instrument::detail {

class Lock {
  public:
    void acquire() noexcept {
        // Acquire pairs with the release in `release`.
        if (state_.exchange(held, std::memory_order_acquire) == open)
            return;
        while (state_.exchange(awaited, std::memory_order_acquire) != open)
            state_.wait(awaited, std::memory_order_relaxed);
    }
    void release() noexcept {
        if (state_.exchange(open, std::memory_order_release) == awaited)
            state_.notify_one();
    }

  private:
    static constexpr int open = 0;
    static constexpr int held = 1;
    static constexpr int awaited = 2;
    std::atomic<int> state_{open};
};

/// Holds back the calling thread's signals.
class SignalsHeld {
  public:
    SignalsHeld() noexcept {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~SignalsHeld() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalsHeld(const SignalsHeld&) = delete;
    SignalsHeld& operator=(const SignalsHeld&) = delete;

  private:
    sigset_t before_;
};

class Locked {
  public:
    explicit Locked(Lock& lock) noexcept : lock_(lock) { lock_.acquire(); }
    ~Locked() { lock_.release(); }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;

  private:
    SignalsHeld signals_;
    Lock& lock_;
};

}  // namespace instrument::detail
