// Child processes, and memory that they share with their parent.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <new>
#include <string>
#include <thread>

#include "zandor/runtime/sanitizers.hpp"

namespace process_tests {

/// Memory that a child and its parent share.
template <class T>
class Shared {
  public:
    Shared()
        : value_(new (mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                           -1, 0)) T()) {}
    ~Shared() { munmap(value_, sizeof(T)); }
    Shared(const Shared&) = delete;
    Shared& operator=(const Shared&) = delete;
    T& operator*() const { return *value_; }
    T* operator->() const { return value_; }

  private:
    T* value_;
};

/// Whether a thread of this process sleeps, by its line in /proc, or has just ended.
inline bool isAsleep(const std::filesystem::path& thread) {
    std::string line;
    std::getline(std::ifstream(thread / "stat"), line);
    const std::size_t endOfName = line.rfind(')');
    return endOfName == std::string::npos || line.substr(endOfName + 2, 1) == "S";
}

/// Of a sanitizer's allocator the locks stay taken in a child that was made while another thread
/// was in it, and the child waits for them for ever. So there the others are given time to fall
/// asleep, as threads of services do that have nothing to do; busy ones are not waited for.
inline void letOthersFallAsleep() {
    using namespace std::chrono_literals;
    const auto isQuiet = [self = std::to_string(gettid())](const auto& thread) {
        return thread.path().filename() == self || isAsleep(thread.path());
    };
    const auto end = std::chrono::steady_clock::now() + 100ms;
    while (!std::ranges::all_of(std::filesystem::directory_iterator("/proc/self/task"), isQuiet) &&
           std::chrono::steady_clock::now() < end)
        std::this_thread::yield();
}

inline pid_t forkQuietly() {
    if (ZANDOR_SANITIZED)
        letOthersFallAsleep();
    return fork();
}

/// A child process that runs a function and exits with 0; killed with its owner.
class Child {
  public:
    explicit Child(const std::function<void()>& run) : process_(forkQuietly()) {
        if (process_ == 0) {
            run();
            _exit(0);
        }
    }
    ~Child() {
        if (process_ > 0) {
            kill(process_, SIGKILL);
            wait();
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t process() const { return process_; }
    void signal(int number) const { kill(process_, number); }
    /// The status that it ended with.
    int wait() {
        int status = 0;
        waitpid(process_, &status, 0);
        process_ = -1;
        return status;
    }
    void waitUntilStopped() const {
        int status = 0;
        waitpid(process_, &status, WUNTRACED);
        ASSERT_TRUE(WIFSTOPPED(status));
    }
    int waitUntilKilled() {
        const int status = wait();
        return WIFSIGNALED(status) ? WTERMSIG(status) : -1;
    }

  private:
    pid_t process_;
};

}  // namespace process_tests
