#include "stack.hpp"

#include <pthread.h>

#include <cstddef>

namespace vantrace {

namespace {

// Where the system does not tell.
constexpr std::size_t assumedSize = std::size_t{128} * 1024;

const char* here() noexcept {
    return static_cast<const char*>(__builtin_frame_address(0));
}

}  // namespace

constinit thread_local TracedThread tracedThread [[gnu::tls_model("initial-exec")]]{};

const char* stackLimit() noexcept {
    pthread_attr_t attributes;
    if (pthread_getattr_np(pthread_self(), &attributes) != 0)
        return here() - assumedSize / 2;
    void* lowest = nullptr;
    std::size_t size = 0;
    const bool isKnown = pthread_attr_getstack(&attributes, &lowest, &size) == 0;
    pthread_attr_destroy(&attributes);
    return isKnown ? static_cast<const char*>(lowest) + size / 2 : here() - assumedSize / 2;
}

}  // namespace vantrace
