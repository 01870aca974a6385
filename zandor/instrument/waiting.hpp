// Waiting for what another thread is about to finish.
#pragma once

#include <sched.h>
#include <time.h>

namespace instrument::detail {

/// Gives the processor away, then sleeps for moments that grow up to a millisecond.
class Backoff {
  public:
    void wait() noexcept {
        if (++rounds_ <= yields) {
            sched_yield();
            return;
        }
        const timespec moment{0, pause_};
        nanosleep(&moment, nullptr);
        pause_ = pause_ < longest ? pause_ * 2 : longest;
    }

  private:
    static constexpr int yields = 64;
    static constexpr long longest = 1'000'000;
    int rounds_ = 0;
    long pause_ = 20'000;
};

}  // namespace instrument::detail
