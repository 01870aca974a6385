#include "zandor/performance/task_turn.hpp"

#include "zandor/performance/task_manager_state.hpp"

namespace Performance::CooperativeTaskManager {

namespace {
// There with the thread: made at its first use, want of memory would end the process.
constinit thread_local int turnsOfThisThread [[gnu::tls_model("initial-exec")]] = 0;
}  // namespace

Task::Turn::Turn(Task& task) : task_(task) {
    const std::lock_guard guard(TaskManagerState::get().lock);
    if (task.state_ == State::pending && task.isFree())
        take();
}

Task::Turn::Turn(Task& task, std::unique_lock<std::mutex>& held) : task_(task) {
    take();
    held.unlock();
}

Task::Turn::~Turn() {
    if (!taken_)
        return;
    const std::lock_guard guard(TaskManagerState::get().lock);
    giveBack();
}

void Task::Turn::end() {
    std::unique_lock held(TaskManagerState::get().lock);
    if (task_.state_ == State::finishing) {
        held.unlock();
        task_.complete();
        held.lock();
    }
    giveBack();
}

bool Task::Turn::isInsideOne() noexcept {
    return turnsOfThisThread > 0;
}

void Task::Turn::take() noexcept {
    task_.runner_ = std::this_thread::get_id();
    task_.running_.store(true, std::memory_order_relaxed);
    taken_ = true;
    ++turnsOfThisThread;
}

void Task::Turn::giveBack() noexcept {
    task_.runner_ = std::thread::id();
    task_.running_.store(false, std::memory_order_relaxed);
    taken_ = false;
    --turnsOfThisThread;
    TaskManagerState::get().turnEnded.notify_all();
}

}  // namespace Performance::CooperativeTaskManager
