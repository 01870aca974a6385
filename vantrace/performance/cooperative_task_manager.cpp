// The namespace "cooperativeTaskManager": the two task sessions driven.
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "vantrace/performance/method_tables.hpp"
#include "zandor/performance/task_manager.hpp"

namespace vantrace {

namespace manager = Performance::CooperativeTaskManager;

namespace {

std::int32_t getNumPendingTasks() {
    return manager::instance()->getNumPendingTasks(true);
}
void logPendingTasks() {
    manager::instance()->logPendingTasks();
}
void pause() {
    manager::instance()->pause();
}
void resume() {
    manager::instance()->resume();
}
bool isPaused() {
    return manager::instance()->pauseDepth() > 0;
}
void pausePPE() {
    manager::ppe()->pause();
}
void resumePPE() {
    manager::ppe()->resume();
}

void finishAllTasks() {
    manager::instance()->finishNow();
    manager::ppe()->finishNow();
}

/// Ends because a task that finishes is not found any more.
void finishTaskByName(const std::string& name) {
    while (const auto task = manager::instance()->findTaskByName(name).lock())
        task->finishNow();
}

/// A budget above the largest signed number becomes a negative one.
void process(std::uint64_t budget) {
    manager::instance()->process(std::chrono::microseconds(static_cast<std::int64_t>(budget)));
}

bool isProcessing() {
    return manager::instance()->isProcessing();
}
void removeAllTasks() {
    manager::instance()->removeAll();
}
void cleanup() {
    manager::instance()->cleanup();
}

constinit const MethodRow rows[] = {
    {"getNumPendingTasks", getNumPendingTasks},
    {"logPendingTasks", logPendingTasks},
    {"pause", pause},
    {"resume", resume},
    {"isPaused", isPaused},
    {"pausePPE", pausePPE},
    {"resumePPE", resumePPE},
    {"finishAllTasks", finishAllTasks},
    {"finishTaskByName", finishTaskByName},
    {"process", process},
    {"isProcessing", isProcessing},
    {"removeAllTasks", removeAllTasks},
    {"cleanup", cleanup},
    {"setLoggingEnabled", manager::setLoggingEnabled},
    {"getLoggingEnabled", manager::getLoggingEnabled},
};

}  // namespace

constinit const MethodTable cooperativeTaskManagerMethods = rows;

}  // namespace vantrace
