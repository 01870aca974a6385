// Signals of a timer, for tests of what handlers may do.
#pragma once

#include <signal.h>
#include <sys/time.h>

namespace instrument::test_support {

/// A timer's signals, ten thousand a second at most, while it lives; calls that they interrupt go
/// on.
class TimerSignals {
  public:
    explicit TimerSignals(void (*handler)(int)) {
        struct sigaction action = {};
        action.sa_handler = handler;
        action.sa_flags = SA_RESTART;
        sigaction(SIGALRM, &action, &before_);
        const itimerval each{{0, 100}, {0, 100}};
        setitimer(ITIMER_REAL, &each, nullptr);
    }
    ~TimerSignals() {
        const itimerval never{};
        setitimer(ITIMER_REAL, &never, nullptr);
        sigaction(SIGALRM, &before_, nullptr);
    }
    TimerSignals(const TimerSignals&) = delete;
    TimerSignals& operator=(const TimerSignals&) = delete;

  private:
    struct sigaction before_;
};

}  // namespace instrument::test_support
