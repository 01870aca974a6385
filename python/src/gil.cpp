#include "gil.hpp"

#include <unistd.h>

#include "zandor/instrument/leave_listeners.hpp"

namespace vantrace {

void park() noexcept {
    // Destructors of listeners run at the end of the process, and would wait for this thread.
    instrument::leaveListeners();
    for (;;)
        pause();
}

bool isInterpreterUp() noexcept {
    return Py_IsInitialized() && !_Py_IsFinalizing();
}

}  // namespace vantrace
