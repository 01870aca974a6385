// How much of a thread's C stack is left.
#pragma once

#include <cstdint>

namespace vantrace {

/// What the hook keeps for a thread.
struct TracedThread {
    std::uint32_t session;  ///< in which the thread was looked at last; 0: never
    std::uint32_t usual;    ///< the session, while its calls need no look at the thread; else 0
    bool isImporting;       ///< an import is the latest event that it entered
    bool isDeep;            ///< it has the hook taken out
    const char* limit;      ///< C frames below this address are too deep to trace
};

extern constinit thread_local TracedThread tracedThread [[gnu::tls_model("initial-exec")]];

/// The address down to which the calling thread's frames may be traced. Half of its stack stays as
/// it is for code that needs more of it than Python functions do, which without the hook need none.
const char* stackLimit() noexcept;

}  // namespace vantrace
