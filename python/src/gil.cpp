#include "gil.hpp"

#include <unistd.h>

namespace vantrace {

void park() noexcept {
    for (;;)
        pause();
}

bool isInterpreterUp() noexcept {
    return Py_IsInitialized() && !_Py_IsFinalizing();
}

}  // namespace vantrace
