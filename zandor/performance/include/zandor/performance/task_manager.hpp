// The cooperative task manager: work in small steps, done when there is time for it.
//
//   class Warm : public Performance::CooperativeTaskManager::Task {
//       bool step(Deadline) override { warm(next_++); return next_ < count_; }
//   };
//   auto* session = Performance::CooperativeTaskManager::instance();
//   session->add(std::make_shared<Warm>("warm"));
//   session->process(std::chrono::milliseconds(5));
//
//   TaskSession (main, PPE) -> tasks in order -> steps;   a session is a task, too, and can be
//   nested
//
// Two sessions live as long as the process: the main one, and the PPE one ("post-prompt execution":
// work that waits until the prompt is back). All operations may be called from any thread, and from
// inside steps. A task's steps never run on two threads at once, and no lock is held while one
// runs. In a child after fork the sessions hold what they held; nothing of it counts as running but
// the steps of the thread that forked.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "zandor/performance/export.hpp"
#include "zandor/performance/pauseable.hpp"

namespace Performance::CooperativeTaskManager {

/// When the time that a caller gave is over.
using Deadline = std::chrono::steady_clock::time_point;

class TaskSession;

/// One unit of cooperative work, done in steps.
class ZANDOR_PERFORMANCE_API Task {
  public:
    explicit Task(std::string name);
    virtual ~Task();
    Task(const Task&) = delete;
    Task& operator=(const Task&) = delete;

    const std::string& name() const noexcept { return name_; }

    /// Whether work is left: false from the moment that its finishNow begins, or its last step
    /// ended.
    bool isPending() const;

    /// Runs steps until none is left or the budget is spent, and starts none after that; true when
    /// work is left. A negative budget is none, one beyond the clock's range has no end. Returns at
    /// once when a step of the task is running already, in this call's own thread or in another. A
    /// step's exception ends the task and reaches the caller.
    bool process(std::chrono::microseconds budget);

    /// Completes the task at once, paused or not. From here on it is not found by name. Does
    /// nothing for a task that is finished. While another thread runs a step of it, that thread
    /// completes it: this call waits for that unless it comes from inside a task. From inside the
    /// task's own step it is completed when the step returns. An exception of the work ends the
    /// task and reaches whoever completes it.
    void finishNow();

  protected:
    /// Does one small piece of work, best within the deadline; true when work is left.
    virtual bool step(Deadline deadline) = 0;
    /// Does all that is left. By default, steps until none is left.
    virtual void finish();

  private:
    friend class TaskSession;
    friend class TaskManagerState;
    class Turn;
    enum class State : std::uint8_t { pending, finishing, finished };

    // What differs in sessions. Those marked "locked" are called with the manager's lock held.
    virtual bool mayRun() const noexcept { return true; }
    virtual bool endsWithItsWork() const noexcept { return true; }
    virtual bool endsWhenFinished() const noexcept { return true; }
    virtual void finishAsPart() { finishNow(); }
    virtual bool hasWork() const noexcept;       // locked
    virtual void forgetOtherRunners() noexcept;  // locked
    virtual const TaskSession* asSession() const noexcept { return nullptr; }

    bool isFree() const noexcept { return runner_ == std::thread::id(); }  // locked
    bool runStep(Deadline deadline);
    void complete();

    const std::string name_;
    // Guarded by the manager's lock.
    State state_ = State::pending;
    std::thread::id runner_;
    std::atomic<bool> running_{false};  // read without the lock: relaxed, a glimpse
};

/// A queue of tasks, which it holds by shared ownership, and a task itself. It is pending while one
/// of its tasks is; a nested one that ran dry can be filled again, until its own finishNow.
class ZANDOR_PERFORMANCE_API TaskSession : public Task, public Pauseable {
  public:
    using Task::Task;
    ~TaskSession() override;

    /// Puts a task at the end of the queue. Throws std::invalid_argument for none, for a session
    /// that is this one or holds it, and when this session is finished.
    void add(std::shared_ptr<Task> task);

    /// How many tasks are pending; with `nested`, those of nested sessions count besides the direct
    /// ones.
    int getNumPendingTasks(bool nested) const;
    /// Writes the pending tasks to the manager's log, whether logging is on or not.
    void logPendingTasks() const;
    /// The first pending task of that name, nested sessions and their tasks included.
    std::weak_ptr<Task> findTaskByName(std::string_view name) const;
    /// Drops all tasks. One that is running ends with the step that it is in.
    void removeAll();
    /// Releases finished tasks, in nested sessions, too.
    void cleanup();
    /// Whether the session is processing. A glimpse: relaxed.
    bool isProcessing() const noexcept;

  protected:
    bool step(Deadline deadline) override;
    void finish() override;

  private:
    using Queue = std::deque<std::shared_ptr<Task>>;

    bool mayRun() const noexcept override { return !isPaused(); }
    bool endsWithItsWork() const noexcept override { return false; }
    void finishAsPart() override { finish(); }
    bool hasWork() const noexcept override;
    void forgetOtherRunners() noexcept override;
    const TaskSession* asSession() const noexcept override { return this; }

    std::shared_ptr<Task> nextWithWork(std::size_t& position) const;
    std::shared_ptr<Task> find(std::string_view name) const;  // locked, as the next five
    int count(bool nested) const noexcept;
    bool holds(const Task& task) const noexcept;
    void list(std::vector<std::string>& lines, int depth) const;
    void addFinished(Queue& finished) const;
    void dropFinished() noexcept;
    void release(const Task& task);

    Queue tasks_;  // guarded by the manager's lock
};

/// The main session, and the PPE session. Never null.
ZANDOR_PERFORMANCE_API TaskSession* instance();
ZANDOR_PERFORMANCE_API TaskSession* ppe();

/// Whether tasks tell on the log when they come and end. Off at first.
ZANDOR_PERFORMANCE_API void setLoggingEnabled(bool enabled);
ZANDOR_PERFORMANCE_API bool getLoggingEnabled();
/// The log writer: printf-style.
using LoggingFunction = int (*)(const char* format, ...);
ZANDOR_PERFORMANCE_API LoggingFunction getLoggingFunction();

// Tasks for trying the manager out, put into the main session.

/// Loads a library, timed and logged.
ZANDOR_PERFORMANCE_API void test_queueLoadLibrary(const char* name);
/// Sleeps so many milliseconds, at most one a step; finishNow skips the rest.
ZANDOR_PERFORMANCE_API void test_queueSleepTask(int milliseconds);
/// Queues a task that does nothing, unless the process has more than its main virtual machine;
/// whether it did.
ZANDOR_PERFORMANCE_API bool test_queueNewTaskIfNonParSessions();

}  // namespace Performance::CooperativeTaskManager
