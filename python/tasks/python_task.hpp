// Tasks whose steps are Python code.
#pragma once

#include <string>

#include "../src/python_api.hpp"
#include "zandor/performance/task_manager.hpp"

namespace vantrace {

/// A generator, of which each value is a step, or a callable, which is one step; one that gives a
/// generator goes on with that. What it raises ends the task and comes out of the step as a
/// PythonException.
///
/// Made under the interpreter's lock; everything else takes it by itself. A generator is closed
/// when the task is destroyed, or when the interpreter begins to end.
class PythonTask final : public Performance::CooperativeTaskManager::Task {
  public:
    PythonTask(std::string name, PyObject* work);
    ~PythonTask() override;

    /// Closes the generators of all tasks: they have no steps left. Needs the lock.
    static void closeAll();

  private:
    bool step(Performance::CooperativeTaskManager::Deadline deadline) override;
    bool stepUnderLock();
    bool advance();
    void close() noexcept;

    // Guarded by the interpreter's lock.
    Ref work_;
    bool isInStep_ = false;
};

}  // namespace vantrace
