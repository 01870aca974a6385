#include "zandor/performance/task_manager_state.hpp"
#include "zandor/performance/task_turn.hpp"

namespace Performance::CooperativeTaskManager {

namespace {

Deadline deadlineAfter(std::chrono::microseconds budget) {
    const Deadline now = Deadline::clock::now();
    if (budget <= std::chrono::microseconds::zero())
        return now;
    // The budget's own unit has more range than the clock's.
    const auto left = std::chrono::duration_cast<std::chrono::microseconds>(Deadline::max() - now);
    return budget < left ? now + budget : Deadline::max();
}

}  // namespace

Task::Task(std::string name) : name_(std::move(name)) {}
Task::~Task() = default;

bool Task::isPending() const {
    const std::lock_guard guard(TaskManagerState::get().lock);
    return hasWork();
}

bool Task::hasWork() const noexcept {
    return state_ == State::pending;
}

bool Task::process(std::chrono::microseconds budget) {
    const Deadline deadline = deadlineAfter(budget);
    if (Turn turn(*this); turn) {
        while (mayRun() && Deadline::clock::now() < deadline && runStep(deadline))
            continue;
        turn.end();
    }
    return isPending();
}

/// One step; true when another may follow at once.
bool Task::runStep(Deadline deadline) {
    const auto end = [this] {
        if (endsWithItsWork())
            state_ = State::finished;
    };
    bool more = false;
    try {
        more = step(deadline);
    } catch (...) {
        const std::lock_guard guard(TaskManagerState::get().lock);
        end();
        throw;
    }
    const std::lock_guard guard(TaskManagerState::get().lock);
    if (!more)
        end();
    return more && state_ == State::pending;
}

void Task::finishNow() {
    TaskManagerState& manager = TaskManagerState::get();
    std::unique_lock held(manager.lock);
    if (state_ == State::finished)
        return;
    if (endsWhenFinished())
        state_ = State::finishing;
    if (!isFree() && !Turn::isInsideOne())
        manager.turnEnded.wait(held, [this] { return isFree(); });
    if (isFree()) {
        if (state_ == State::finished)
            return;  // whoever ran it completed it
        Turn turn(*this, held);
        complete();
        return;
    }
    held.unlock();
    // Its runner completes a task that ends. A lasting session's tasks are completed here, one by
    // one.
    if (!endsWhenFinished())
        finish();
}

/// Does all that is left, in a turn of the task; afterwards it is finished, also when that failed.
void Task::complete() {
    struct Finished {
        Task& task;
        ~Finished() {
            const std::lock_guard guard(TaskManagerState::get().lock);
            if (task.endsWhenFinished())
                task.state_ = State::finished;
        }
    } const finished{*this};
    finish();
}

void Task::finish() {
    while (step(Deadline::max()))
        continue;
}

void Task::forgetOtherRunners() noexcept {
    if (runner_ == std::this_thread::get_id())
        return;
    runner_ = std::thread::id();
    running_.store(false, std::memory_order_relaxed);
}

}  // namespace Performance::CooperativeTaskManager
