// Whose turn it is: questions come between the pieces of long work.
#pragma once

#include <condition_variable>
#include <mutex>

namespace instrument::detail {

class LodTurns {
  public:
    using Turn = std::unique_lock<std::mutex>;

    /// Does not wait for more than one piece of the work.
    Turn ask() {
        {
            const std::lock_guard lock(countMutex_);
            ++asking_;
        }
        Turn turn(mutex_);
        const std::lock_guard lock(countMutex_);
        if (--asking_ == 0)
            noneAsks_.notify_one();
        return turn;
    }

    /// Waits until nobody asks.
    Turn work() {
        std::unique_lock lock(countMutex_);
        noneAsks_.wait(lock, [this] { return asking_ == 0; });
        lock.unlock();
        return Turn(mutex_);
    }

  private:
    std::mutex mutex_;
    std::mutex countMutex_;
    std::condition_variable noneAsks_;
    int asking_ = 0;
};

}  // namespace instrument::detail
