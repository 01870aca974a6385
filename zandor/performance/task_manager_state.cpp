#include "zandor/performance/task_manager_state.hpp"

#include <pthread.h>

#include <new>

#include "zandor/runtime/console.hpp"

namespace Performance::CooperativeTaskManager {

namespace {

std::atomic<bool> loggingEnabled{false};  // a switch: relaxed, nothing is published by it

void lockForFork() noexcept {
    TaskManagerState::get().lock.lock();
}
void unlockInParent() noexcept {
    TaskManagerState::get().lock.unlock();
}

void unlockInChild() noexcept {
    TaskManagerState& state = TaskManagerState::get();
    state.forgetOtherThreads();
    // What is known of threads that waited must not be known here.
    ::new (&state.turnEnded) std::condition_variable;
    state.lock.unlock();
}

}  // namespace

TaskManagerState::TaskManagerState() {
    pthread_atfork(lockForFork, unlockInParent, unlockInChild);
}

TaskManagerState& TaskManagerState::get() {
    alignas(TaskManagerState) static std::byte storage[sizeof(TaskManagerState)];
    static TaskManagerState& state = *::new (storage) TaskManagerState;
    return state;
}

void TaskManagerState::forgetOtherThreads() noexcept {
    static_cast<Task&>(main_).forgetOtherRunners();
    static_cast<Task&>(ppe_).forgetOtherRunners();
}

TaskSession* instance() {
    return &TaskManagerState::get().main();
}
TaskSession* ppe() {
    return &TaskManagerState::get().ppe();
}

void setLoggingEnabled(bool enabled) {
    loggingEnabled.store(enabled, std::memory_order_relaxed);
}
bool getLoggingEnabled() {
    return loggingEnabled.load(std::memory_order_relaxed);
}
LoggingFunction getLoggingFunction() {
    return &utPrintf;
}

}  // namespace Performance::CooperativeTaskManager
