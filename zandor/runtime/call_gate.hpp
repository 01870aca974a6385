// Which calls are running inside a plug-in, so that it is not unloaded under them.
#pragma once

#include <sys/single_threaded.h>

#include <atomic>
#include <cstdint>

namespace zandor {

/// Counts running calls while it is open; lets none in once it is closed.
class CallGate {
  public:
    bool isOpen() const noexcept {
        // Pairs with close: who sees the gate closed does not look at what is behind it.
        return !(state_.load(std::memory_order_acquire) & closed);
    }
    void open() noexcept { state_.fetch_and(~closed, std::memory_order_release); }
    void close() noexcept { state_.fetch_or(closed, std::memory_order_acq_rel); }

    /// Returns once no call runs; to be called after close.
    void waitUntilIdle() const noexcept;

    /// For the child of a fork: only calls of the forking thread run on.
    void recountAfterFork() noexcept;

  private:
    friend class CallScope;
    static constexpr std::uint32_t closed = std::uint32_t{1} << 31;

    bool enter() noexcept {
        // A closed gate does not count.
        if (!(add(1) & closed)) [[likely]] {
            return true;
        }
        leave();
        return false;
    }
    void leave() noexcept {
        if (add(minusOne) == (closed | 1)) [[unlikely]] {
            state_.notify_all();
        }
    }

    /// Gives what was there before. An addition that is one for other threads, too, waits for all
    /// that was stored before it: a thread that is the only one does without.
    std::uint32_t add(std::uint32_t number) noexcept {
        // Entering acquires what open released; leaving releases what the call did, which comes
        // before the unloading, which acquires in waitUntilIdle.
        if (!__libc_single_threaded)
            return state_.fetch_add(number, std::memory_order_acq_rel);
        // Relaxed: a signal handler leaves the number that it found.
        const std::uint32_t before = state_.load(std::memory_order_relaxed);
        // Relaxed: threads that come later see it, as all that was before them.
        state_.store(before + number, std::memory_order_relaxed);
        return before;
    }
    static constexpr std::uint32_t minusOne = ~std::uint32_t{0};

    // What a call did is released when it leaves, and acquired by who waits until the gate is idle;
    // what was done before open is released by it, and acquired on entry.
    std::atomic<std::uint32_t> state_{closed};
};

/// A call of the calling thread that is inside a gate. A null gate lets everybody in.
class CallScope {
  public:
    /// Throws NotLoadedError when the gate is closed.
    explicit CallScope(CallGate* gate) : gate_(gate), outer_(innermost_) {
        if (gate_ && !gate_->enter()) [[unlikely]] {
            throwNotLoaded();
        }
        innermost_ = this;
    }
    ~CallScope() {
        innermost_ = outer_;
        if (gate_)
            gate_->leave();
    }
    CallScope(const CallScope&) = delete;
    CallScope& operator=(const CallScope&) = delete;

    /// How many calls of this thread are inside `gate`.
    static std::uint32_t depth(const CallGate& gate) noexcept;

    [[noreturn]] static void throwNotLoaded();

  private:
    [[gnu::tls_model("initial-exec")]] static constinit inline thread_local CallScope* innermost_ =
        nullptr;

    CallGate* const gate_;
    CallScope* const outer_;
};

}  // namespace zandor
