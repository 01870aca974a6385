// Threads of the interpreter as the sampler sees them.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "../src/python_api.hpp"

namespace vantrace {

/// Nanoseconds of CPU time that a thread of this process has had; 0 where it is gone.
std::int64_t cpuTimeOf(pid_t thread) noexcept;

/// What the system calls a thread; empty where it is gone.
std::string kernelNameOf(pid_t thread);

pid_t thisThread() noexcept;

/// What is known of a thread that was seen before.
struct SampledThread {
    std::uint32_t number = 0;  ///< in the stream
    pid_t thread = 0;          ///< the system's number
    std::int64_t cpu = 0;      ///< when it was last seen
    std::uint64_t tick = 0;    ///< the one at which it was
    std::optional<std::uint32_t> line = {};
};

}  // namespace vantrace
