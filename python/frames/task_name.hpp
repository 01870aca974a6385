// The asyncio task that runs.
#pragma once

#include "../src/python_api.hpp"

namespace vantrace {

/// The name of the task that the calling thread runs; empty where it runs none. An exception that
/// is set stays.
Ref currentTaskName() noexcept;

}  // namespace vantrace
