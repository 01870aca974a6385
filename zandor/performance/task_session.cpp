#include <algorithm>
#include <exception>
#include <stdexcept>

#include "zandor/performance/task_manager_state.hpp"
#include "zandor/performance/task_turn.hpp"

namespace Performance::CooperativeTaskManager {

TaskSession::~TaskSession() = default;

void TaskSession::add(std::shared_ptr<Task> task) {
    if (!task)
        throw std::invalid_argument("task: expected a task, got none");
    const std::lock_guard guard(TaskManagerState::get().lock);
    if (state_ == State::finished)
        throw std::invalid_argument("session: expected one that is not finished, got '" + name() +
                                    "'");
    const TaskSession* session = task->asSession();
    if (session == this || (session && session->holds(*this)))
        throw std::invalid_argument("task: expected one that does not hold this session, got '" +
                                    task->name() + "'");
    tasks_.push_back(std::move(task));
}

bool TaskSession::holds(const Task& task) const noexcept {
    return std::any_of(tasks_.begin(), tasks_.end(), [&](const auto& held) {
        const TaskSession* session = held->asSession();
        return held.get() == &task || (session && session->holds(task));
    });
}

bool TaskSession::hasWork() const noexcept {
    return state_ == State::pending &&
           std::any_of(tasks_.begin(), tasks_.end(),
                       [](const auto& task) { return task->hasWork(); });
}

int TaskSession::getNumPendingTasks(bool nested) const {
    const std::lock_guard guard(TaskManagerState::get().lock);
    return count(nested);
}

int TaskSession::count(bool nested) const noexcept {
    int pending = 0;
    for (const auto& task : tasks_) {
        if (!task->hasWork())
            continue;
        const TaskSession* session = nested ? task->asSession() : nullptr;
        pending += 1 + (session ? session->count(nested) : 0);
    }
    return pending;
}

std::weak_ptr<Task> TaskSession::findTaskByName(std::string_view name) const {
    const std::lock_guard guard(TaskManagerState::get().lock);
    return find(name);
}

std::shared_ptr<Task> TaskSession::find(std::string_view name) const {
    for (const auto& task : tasks_) {
        if (!task->hasWork())
            continue;
        if (task->name() == name)
            return task;
        const TaskSession* session = task->asSession();
        if (auto nested = session ? session->find(name) : nullptr)
            return nested;
    }
    return nullptr;
}

/// The first task with work at `position` or behind it; moves the position behind that one.
std::shared_ptr<Task> TaskSession::nextWithWork(std::size_t& position) const {
    const std::lock_guard guard(TaskManagerState::get().lock);
    while (position < tasks_.size()) {
        const auto& task = tasks_[position++];
        if (task->hasWork())
            return task;
    }
    return nullptr;
}

/// A step of the first task that can make one.
bool TaskSession::step(Deadline deadline) {
    std::size_t position = 0;
    while (const auto task = nextWithWork(position)) {
        Turn turn(*task);
        if (!turn || !task->mayRun())
            continue;
        struct Released {
            TaskSession& session;
            Task& task;
            ~Released() { session.release(task); }
        } const released{*this, *task};
        const bool advanced = task->runStep(deadline) || task->endsWithItsWork();
        turn.end();
        if (advanced)
            return true;
    }
    return false;
}

void TaskSession::finish() {
    std::exception_ptr first;
    std::size_t position = 0;
    while (const auto task = nextWithWork(position)) {
        try {
            task->finishAsPart();
        } catch (...) {
            if (!first)
                first = std::current_exception();
        }
        release(*task);
        position = 0;  // what was done may have changed the queue
    }
    if (first)
        std::rethrow_exception(first);
}

/// Lets go of a task that is finished.
void TaskSession::release(const Task& task) {
    std::shared_ptr<Task> last;  // destroyed after the lock is open
    const std::lock_guard guard(TaskManagerState::get().lock);
    if (task.state_ != State::finished)
        return;
    const auto at = std::find_if(tasks_.begin(), tasks_.end(),
                                 [&](const auto& held) { return held.get() == &task; });
    if (at == tasks_.end())
        return;
    last = std::move(*at);
    tasks_.erase(at);
}

void TaskSession::removeAll() {
    Queue removed;  // destroyed after the lock is open
    const std::lock_guard guard(TaskManagerState::get().lock);
    removed.swap(tasks_);
}

void TaskSession::cleanup() {
    Queue finished;  // destroyed after the lock is open
    const std::lock_guard guard(TaskManagerState::get().lock);
    addFinished(finished);
    dropFinished();
}

void TaskSession::addFinished(Queue& finished) const {
    for (const auto& task : tasks_) {
        if (const TaskSession* session = task->asSession())
            session->addFinished(finished);
        if (task->state_ == State::finished)
            finished.push_back(task);
    }
}

void TaskSession::dropFinished() noexcept {
    for (const auto& task : tasks_)
        if (auto* session = const_cast<TaskSession*>(task->asSession()))
            session->dropFinished();
    std::erase_if(tasks_, [](const auto& task) { return task->state_ == State::finished; });
}

bool TaskSession::isProcessing() const noexcept {
    return running_.load(std::memory_order_relaxed);
}

void TaskSession::forgetOtherRunners() noexcept {
    Task::forgetOtherRunners();
    for (const auto& task : tasks_)
        task->forgetOtherRunners();
}

void TaskSession::logPendingTasks() const {
    std::vector<std::string> lines;
    {
        const std::lock_guard guard(TaskManagerState::get().lock);
        lines.push_back(name() + ": " + std::to_string(count(true)) + " pending tasks");
        list(lines, 1);
    }
    for (const auto& line : lines)
        getLoggingFunction()("%s\n", line.c_str());
}

void TaskSession::list(std::vector<std::string>& lines, int depth) const {
    for (const auto& task : tasks_) {
        if (!task->hasWork())
            continue;
        lines.push_back(std::string(static_cast<std::size_t>(2 * depth), ' ') + task->name());
        if (const TaskSession* session = task->asSession())
            session->list(lines, depth + 1);
    }
}

}  // namespace Performance::CooperativeTaskManager
