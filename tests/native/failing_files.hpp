// Operations on files that fail when a test says so: write, close, link and rename. For one file of
// a program: it replaces what the program and all its libraries call.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>

namespace failing_files {

/// What becomes of the operation of a number, counted from 1.
struct Plan {
    enum class Outcome {
        error,        ///< `error`, and nothing is done
        shortWrite,   ///< a write of one byte; other operations succeed
        interrupted,  ///< a write is interrupted before it began; other operations succeed
    };
    std::uint64_t first = 0;
    bool onlyThatOne = false;
    Outcome outcome = Outcome::error;
    int error = ENOSPC;
};

inline std::atomic<const Plan*> plan{nullptr};
inline std::atomic<std::uint64_t> operations{0};

/// While it lives, operations fail as planned, in every thread.
class Failure {
  public:
    explicit Failure(const Plan& wanted) : plan_(wanted) {
        operations = 0;
        plan = &plan_;
    }
    ~Failure() { plan = nullptr; }
    Failure(const Failure&) = delete;
    Failure& operator=(const Failure&) = delete;
    bool came() const noexcept { return operations >= plan_.first; }

  private:
    const Plan plan_;
};

/// The plan, where it is this operation's turn.
inline const Plan* next() noexcept {
    const Plan* now = plan;
    if (!now)
        return nullptr;
    const std::uint64_t number = ++operations;
    return (now->onlyThatOne ? number == now->first : number >= now->first) ? now : nullptr;
}

inline bool isRegularFile(int file) noexcept {
    struct stat status {};
    return fstat(file, &status) == 0 && S_ISREG(status.st_mode);
}

}  // namespace failing_files

#define FAILING_FILES_EXPORT extern "C" __attribute__((visibility("default"), noinline))

FAILING_FILES_EXPORT ssize_t write(int file, const void* bytes, size_t size) {
    using Outcome = failing_files::Plan::Outcome;
    if (failing_files::plan.load() && failing_files::isRegularFile(file))
        if (const auto* plan = failing_files::next()) {
            if (plan->outcome == Outcome::shortWrite)
                return syscall(SYS_write, file, bytes, size_t{1});
            errno = plan->outcome == Outcome::interrupted ? EINTR : plan->error;
            return -1;
        }
    return syscall(SYS_write, file, bytes, size);
}

FAILING_FILES_EXPORT int close(int file) {
    const bool counts = failing_files::plan.load() && failing_files::isRegularFile(file) &&
                        (fcntl(file, F_GETFL) & O_ACCMODE) != O_RDONLY;
    const auto* plan = counts ? failing_files::next() : nullptr;
    const int closed = static_cast<int>(syscall(SYS_close, file));
    if (!plan || plan->outcome != failing_files::Plan::Outcome::error)
        return closed;
    errno = plan->error;
    return -1;
}

FAILING_FILES_EXPORT int linkat(int fromFolder, const char* from, int toFolder, const char* to,
                                int flags) noexcept {
    const auto* plan = failing_files::next();
    if (!plan || plan->outcome != failing_files::Plan::Outcome::error)
        return static_cast<int>(syscall(SYS_linkat, fromFolder, from, toFolder, to, flags));
    errno = plan->error;
    return -1;
}

FAILING_FILES_EXPORT int rename(const char* from, const char* to) noexcept {
    const auto* plan = failing_files::next();
    if (!plan || plan->outcome != failing_files::Plan::Outcome::error)
        return static_cast<int>(syscall(SYS_rename, from, to));
    errno = plan->error;
    return -1;
}
