// What all tasks share: one lock, and who waits for whom.
#pragma once

#include <condition_variable>
#include <mutex>

#include "zandor/performance/task_manager.hpp"

namespace Performance::CooperativeTaskManager {

/// There is one, never destroyed: tasks may outlast static objects. The lock guards queues and
/// states, and is held for a few instructions at a time; no code of a task runs under it. A fork
/// takes it, so that a child finds whole queues and an open lock.
class TaskManagerState {
  public:
    static TaskManagerState& get();

    std::mutex lock;
    std::condition_variable turnEnded;

    TaskSession& main() noexcept { return main_; }
    TaskSession& ppe() noexcept { return ppe_; }

    /// In a child after fork: steps of threads that are not here do not run.
    void forgetOtherThreads() noexcept;

  private:
    /// A session that the process keeps for good.
    class RootSession final : public TaskSession {
      public:
        using TaskSession::TaskSession;

      private:
        bool endsWhenFinished() const noexcept override { return false; }
    };

    TaskManagerState();

    RootSession main_{"main"};
    RootSession ppe_{"ppe"};
};

}  // namespace Performance::CooperativeTaskManager
