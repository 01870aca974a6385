#include "method_lock.hpp"

#include <algorithm>
#include <array>

namespace vantrace {

namespace {

constexpr auto quickMethods = std::to_array<std::string_view>({
    "performance.cooperativeTaskManager.getLoggingEnabled",
    "performance.cooperativeTaskManager.getNumPendingTasks",
    "performance.cooperativeTaskManager.isPaused",
    "performance.cooperativeTaskManager.isProcessing",
    "performance.cooperativeTaskManager.pause",
    "performance.cooperativeTaskManager.pausePPE",
    "performance.cooperativeTaskManager.setLoggingEnabled",
    "performance.instrument.areAnyListenersActive",
    "performance.instrument.controls.disable",
    "performance.instrument.controls.disableWithContextEntry",
    "performance.instrument.controls.enable",
    "performance.instrument.controls.enableWithContextEntry",
    "performance.instrument.controls.has",
    "performance.instrument.controls.isEnabled",
    "performance.instrument.controls.isEnabledWithContext",
    "performance.instrument.controls.wereAllEnabled",
    "performance.instrument.counter.isActive",
    "performance.instrument.instruments.startEvent",
    "performance.instrument.instruments.stopEvent",
    "performance.instrument.logger.isActive",
    "performance.instrument.profiler.isActive",
    "performance.instrument.recorder.isActive",
    "performance.utils.getMicrosecondTimer",
    "performance.utils.getMillisecondTimer",
    "performance.utils.getNanosecondTimer",
});
static_assert(std::ranges::is_sorted(quickMethods));

}  // namespace

bool keepsInterpreterLock(std::string_view fullName) noexcept {
    return std::ranges::binary_search(quickMethods, fullName);
}

}  // namespace vantrace
