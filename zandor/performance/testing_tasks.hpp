// Tasks for the tests of the task manager.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "zandor/performance/task_manager.hpp"

namespace Performance::CooperativeTaskManager::testing {

inline constexpr std::chrono::microseconds ample = std::chrono::hours(1);

/// So many steps, each of which does `work`.
class StepsTask : public Task {
  public:
    StepsTask(std::string name, int steps, std::function<void()> work = {})
        : Task(std::move(name)), left_(steps), work_(std::move(work)) {}

    int stepsDone() const { return done_; }

  private:
    bool step(Deadline) override {
        ++done_;
        if (work_)
            work_();
        return --left_ > 0;
    }

    std::atomic<int> done_ = 0;
    int left_;
    std::function<void()> work_;
};

/// A task in the session, and a handle of it.
inline std::shared_ptr<StepsTask> addSteps(TaskSession& session, std::string name, int steps,
                                           std::function<void()> work = {}) {
    auto task = std::make_shared<StepsTask>(std::move(name), steps, std::move(work));
    session.add(task);
    return task;
}

}  // namespace Performance::CooperativeTaskManager::testing
