// The name of a Python thread in recordings.
#pragma once

#include "python_api.hpp"

namespace vantrace {

/// Whether the calling thread was looked at already.
extern constinit thread_local bool isThreadNameKnown [[gnu::tls_model("initial-exec")]];

/// Finds the thread's name in Python's threading module and gives it to the instruments.
void lookUpThreadName() noexcept;

/// Names the calling thread, which holds the interpreter's lock, at its first call.
inline void nameThread() noexcept {
    if (!isThreadNameKnown) [[unlikely]]
        lookUpThreadName();
}

}  // namespace vantrace
