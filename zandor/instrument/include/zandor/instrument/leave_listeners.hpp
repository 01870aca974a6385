// For threads that are stopped for good in the middle of an event.
#pragma once

#include "zandor/instrument/export.hpp"

namespace instrument {

/// The calling thread will never run on, wherever it is: nobody waits any more for it to come out
/// of the listeners that it is inside of. An embedder calls this before it parks a thread whose
/// interpreter is gone.
ZANDOR_INSTRUMENT_API void leaveListeners() noexcept;

}  // namespace instrument
