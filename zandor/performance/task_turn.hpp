// Turns: the right to run a task.
#pragma once

#include <mutex>

#include "zandor/performance/task_manager.hpp"

namespace Performance::CooperativeTaskManager {

/// Held by one thread at a time. What is asked of the task meanwhile, its completion, is done when
/// the turn ends.
class Task::Turn {
  public:
    /// Takes the turn of a task that was not asked to finish, unless another has it.
    explicit Turn(Task& task);
    /// Takes the turn to complete a task that the caller, who holds the lock, found free.
    Turn(Task& task, std::unique_lock<std::mutex>& held);
    ~Turn();
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

    explicit operator bool() const noexcept { return taken_; }

    /// Gives the turn back, after completing the task where that was asked for.
    void end();

    /// Whether the calling thread has a turn. Then it must not wait for another's.
    static bool isInsideOne() noexcept;

  private:
    void take() noexcept;
    void giveBack() noexcept;  // with the lock held

    Task& task_;
    bool taken_ = false;
};

}  // namespace Performance::CooperativeTaskManager
