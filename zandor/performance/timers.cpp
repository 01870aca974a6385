#include "zandor/performance/timers.hpp"

namespace Performance {

std::chrono::nanoseconds GetNanosecondTimer() noexcept {
    return std::chrono::steady_clock::now().time_since_epoch();
}

std::chrono::microseconds GetMicrosecondTimer() noexcept {
    return std::chrono::duration_cast<std::chrono::microseconds>(GetNanosecondTimer());
}

std::chrono::milliseconds GetMillisecondTimer() noexcept {
    return std::chrono::duration_cast<std::chrono::milliseconds>(GetNanosecondTimer());
}

}  // namespace Performance
