// Requests for memory that fail when a test says so: operator new and mmap in every build, and
// malloc where no sanitizer has its own. For one file of a program: it replaces what the program
// and all its libraries call.
#pragma once

#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>

#include "zandor/runtime/class_system.hpp"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define FAILING_MEMORY_SANITIZED
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define FAILING_MEMORY_SANITIZED
#endif
#endif

namespace failing_memory {

/// Which requests fail, counted from 1.
struct Plan {
    std::uint64_t first = 0;
    bool onlyThatOne = false;
};

/// What one thread, or all of them, may still ask for. Nobody asks while it is null.
struct Requests {
    Plan plan;
    std::atomic<std::uint64_t> made{0};

    bool refuses() noexcept {
        const std::uint64_t number = made.fetch_add(1) + 1;
        return plan.onlyThatOne ? number == plan.first : number >= plan.first;
    }
};

inline thread_local Requests* ofThisThread = nullptr;
inline thread_local Requests* atGate = nullptr;
inline std::atomic<Requests*> ofOtherThreads{nullptr};

inline bool refuses() noexcept {
    Requests* requests = ofThisThread ? ofThisThread : ofOtherThreads.load();
    return requests && requests->refuses();
}

/// While it lives, this thread's requests fail as planned.
class Failure {
  public:
    /// Whose requests are meant.
    enum class Of { everything, hostsOperators };

    explicit Failure(Plan plan, Of of = Of::everything) : requests_{plan} {
        (of == Of::everything ? ofThisThread : atGate) = &requests_;
        gate_ = kobs::internal::setAllocationGate(
            [](std::size_t) noexcept { return !(atGate && atGate->refuses()); });
    }
    ~Failure() {
        kobs::internal::setAllocationGate(gate_);
        ofThisThread = nullptr;
        atGate = nullptr;
    }
    Failure(const Failure&) = delete;
    Failure& operator=(const Failure&) = delete;

    /// Whether a request failed.
    bool came() const noexcept { return requests_.made >= requests_.plan.first; }

  private:
    Requests requests_;
    kobs::internal::AllocationGate gate_ = nullptr;
};

/// While it lives, the requests of threads without a failure of their own fail as planned.
class FailureElsewhere {
  public:
    explicit FailureElsewhere(Plan plan) : requests_{plan}, own_{{UINT64_MAX, false}} {
        ofThisThread = &own_;
        ofOtherThreads = &requests_;
    }
    ~FailureElsewhere() {
        ofOtherThreads = nullptr;
        ofThisThread = nullptr;
    }
    FailureElsewhere(const FailureElsewhere&) = delete;
    FailureElsewhere& operator=(const FailureElsewhere&) = delete;

    bool came() const noexcept { return requests_.made >= requests_.plan.first; }

  private:
    Requests requests_;
    Requests own_;
};

inline void* allocate(std::size_t size, std::size_t alignment = 0) noexcept {
#ifdef FAILING_MEMORY_SANITIZED
    if (refuses())
        return nullptr;
#endif
    // malloc refuses by itself in the other builds.
    const std::size_t whole = size ? size : 1;
    return alignment
               ? std::aligned_alloc(alignment, (whole + alignment - 1) / alignment * alignment)
               : std::malloc(whole);
}

}  // namespace failing_memory

#define FAILING_MEMORY_EXPORT __attribute__((visibility("default"), noinline))

FAILING_MEMORY_EXPORT void* operator new(std::size_t size) {
    if (void* memory = failing_memory::allocate(size))
        return memory;
    throw std::bad_alloc();
}
FAILING_MEMORY_EXPORT void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return failing_memory::allocate(size);
}
FAILING_MEMORY_EXPORT void* operator new(std::size_t size, std::align_val_t alignment) {
    if (void* memory = failing_memory::allocate(size, static_cast<std::size_t>(alignment)))
        return memory;
    throw std::bad_alloc();
}
FAILING_MEMORY_EXPORT void operator delete(void* memory) noexcept {
    std::free(memory);
}
FAILING_MEMORY_EXPORT void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
FAILING_MEMORY_EXPORT void operator delete(void* memory, std::align_val_t) noexcept {
    std::free(memory);
}
FAILING_MEMORY_EXPORT void operator delete(void* memory, std::size_t, std::align_val_t) noexcept {
    std::free(memory);
}

extern "C" FAILING_MEMORY_EXPORT void* mmap(void* at, std::size_t size, int protection, int flags,
                                            int file, off_t offset) noexcept {
    if (failing_memory::refuses()) {
        errno = ENOMEM;
        return MAP_FAILED;
    }
    return reinterpret_cast<void*>(syscall(SYS_mmap, at, size, protection, flags, file, offset));
}

#ifndef FAILING_MEMORY_SANITIZED

extern "C" {

void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
void* __libc_memalign(std::size_t, std::size_t);

FAILING_MEMORY_EXPORT void* malloc(std::size_t size) {
    return failing_memory::refuses() ? (errno = ENOMEM, nullptr) : __libc_malloc(size);
}
FAILING_MEMORY_EXPORT void* calloc(std::size_t count, std::size_t size) {
    return failing_memory::refuses() ? (errno = ENOMEM, nullptr) : __libc_calloc(count, size);
}
FAILING_MEMORY_EXPORT void* realloc(void* memory, std::size_t size) {
    return failing_memory::refuses() ? (errno = ENOMEM, nullptr) : __libc_realloc(memory, size);
}
FAILING_MEMORY_EXPORT void* aligned_alloc(std::size_t alignment, std::size_t size) {
    return failing_memory::refuses() ? (errno = ENOMEM, nullptr) : __libc_memalign(alignment, size);
}
FAILING_MEMORY_EXPORT int posix_memalign(void** memory, std::size_t alignment, std::size_t size) {
    *memory = failing_memory::refuses() ? nullptr : __libc_memalign(alignment, size);
    return *memory ? 0 : ENOMEM;
}
}

#endif
