#include "zandor/runtime/console.hpp"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>

namespace zandor {

namespace {

/// Keeps texts whole where the descriptor takes them in pieces. A write may block for as long as
/// its reader likes, so a fork does not wait for it: the child begins with a new lock.
constinit std::mutex writeLock;

int writeToStandardOutput(const char* text, std::size_t length) noexcept {
    const std::lock_guard lock(writeLock);
    for (std::size_t written = 0; written < length;) {
        const ssize_t now = write(STDOUT_FILENO, text + written, length - written);
        if (now >= 0) {
            written += static_cast<std::size_t>(now);
        } else if (errno != EINTR) {
            return -1;
        }
    }
    return static_cast<int>(length);
}

// Installing releases what the sink's maker prepared; each text acquires it.
constinit std::atomic<ConsoleSink> currentSink{writeToStandardOutput};

[[maybe_unused]] const int renewedAfterFork =
    pthread_atfork(nullptr, nullptr, [] { new (&writeLock) std::mutex; });

int hand(const char* text, int length) noexcept {
    const ConsoleSink sink = currentSink.load(std::memory_order_acquire);
    return sink(text, static_cast<std::size_t>(length)) < 0 ? -1 : length;
}

/// What is too long for the result's type is refused, as the standard library does.
int handText(const char* text) noexcept {
    const std::size_t length = std::strlen(text);
    return length <= INT_MAX ? hand(text, static_cast<int>(length)) : -1;
}

}  // namespace

ConsoleSink setConsoleSink(ConsoleSink sink) noexcept {
    return currentSink.exchange(sink ? sink : writeToStandardOutput, std::memory_order_acq_rel);
}

}  // namespace zandor

int utPrintf(const char* format, ...) {
    char shortText[1024];
    std::va_list arguments;
    va_start(arguments, format);
    // A text as it is, which is what most callers have.
    if (std::strcmp(format, "%s") == 0) {
        const char* const text = va_arg(arguments, const char*);
        va_end(arguments);
        return zandor::handText(text ? text : "(null)");
    }
    std::va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(shortText, sizeof shortText, format, arguments);
    va_end(arguments);

    int result = length;
    if (length >= 0 && length < static_cast<int>(sizeof shortText)) {
        result = zandor::hand(shortText, length);
    } else if (length >= 0) {
        const std::size_t size = static_cast<std::size_t>(length) + 1;
        const std::unique_ptr<char[]> longText(new (std::nothrow) char[size]);
        const bool formatted =
            longText && std::vsnprintf(longText.get(), size, format, again) == length;
        result = formatted ? zandor::hand(longText.get(), length) : -1;
    }
    va_end(again);
    return result;
}
