// What is written to the host's console, kept.
#pragma once

#include <cstddef>
#include <mutex>
#include <string>
#include <utility>

#include "zandor/runtime/console.hpp"

namespace vantrace_testing {

/// While it lives, console texts go here.
class KeptConsole {
  public:
    KeptConsole() {
        take();
        before_ = zandor::setConsoleSink([](const char* text, std::size_t length) noexcept {
            const std::lock_guard guard(lock_);
            text_.append(text, length);
            return static_cast<int>(length);
        });
    }
    ~KeptConsole() { zandor::setConsoleSink(before_); }
    KeptConsole(const KeptConsole&) = delete;
    KeptConsole& operator=(const KeptConsole&) = delete;

    /// What was written since the last time.
    static std::string take() {
        const std::lock_guard guard(lock_);
        return std::exchange(text_, {});
    }

  private:
    static inline std::mutex lock_;
    static inline std::string text_;
    zandor::ConsoleSink before_;
};

}  // namespace vantrace_testing
