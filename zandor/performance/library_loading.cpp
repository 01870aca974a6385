#include "zandor/performance/library_loading.hpp"

#include "zandor/performance/task_manager.hpp"
#include "zandor/performance/timers.hpp"
#include "zandor/runtime/library.hpp"

namespace Performance {

void loadLibraryTimed(const char* name, int& status, LibraryLoader loader) {
    const auto start = GetMicrosecondTimer();
    const void* handle = loader(name, &status);
    if (!CooperativeTaskManager::getLoggingEnabled())
        return;
    const auto log = CooperativeTaskManager::getLoggingFunction();
    if (status == 0 && handle) {
        // The line's number is 32 bits wide.
        log("[%s] loaded in %d microseconds\n", name,
            static_cast<int>((GetMicrosecondTimer() - start).count()));
    } else {
        log("utLoadLibrary(%s) failed with error status: %d, %s\n", name, status,
            utLastLibraryError());
    }
}

}  // namespace Performance
