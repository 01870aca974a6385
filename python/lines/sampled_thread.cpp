#include "sampled_thread.hpp"

#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <fstream>

namespace vantrace {

namespace {

/// The system's name for the clock of a thread, which the library tells only of threads whose
/// handle is known to be alive.
clockid_t cpuClockOf(pid_t thread) noexcept {
    constexpr int perThread = 4;
    constexpr int schedulersCount = 2;
    return static_cast<clockid_t>(~static_cast<unsigned>(thread) << 3 | perThread |
                                  schedulersCount);
}

}  // namespace

std::int64_t cpuTimeOf(pid_t thread) noexcept {
    timespec time{};
    if (thread == 0 || clock_gettime(cpuClockOf(thread), &time) != 0)
        return 0;
    return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

std::string kernelNameOf(pid_t thread) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/comm");
    std::string name;
    std::getline(file, name);
    return name;
}

pid_t thisThread() noexcept {
    return static_cast<pid_t>(syscall(SYS_gettid));
}

}  // namespace vantrace
