// Child processes, and memory that they share with their parent.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <new>

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

/// A child process that runs a function and exits with 0; killed with its owner.
class Child {
  public:
    explicit Child(const std::function<void()>& run) : process_(fork()) {
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
