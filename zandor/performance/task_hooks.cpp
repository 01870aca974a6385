// Tasks for trying the manager out.

#include <algorithm>

#include "zandor/performance/library_loading.hpp"
#include "zandor/performance/task_manager.hpp"
#include "zandor/runtime/context.hpp"
#include "zandor/runtime/library.hpp"

namespace Performance::CooperativeTaskManager {

namespace {

class LoadLibraryTask final : public Task {
  public:
    explicit LoadLibraryTask(std::string library)
        : Task("load " + library), library_(std::move(library)) {}

  private:
    bool step(Deadline) override {
        int status = 0;
        loadLibraryTimed(library_.c_str(), status, &utLoadLibrary);
        return false;
    }

    const std::string library_;
};

class SleepTask final : public Task {
  public:
    explicit SleepTask(std::chrono::milliseconds time) : Task("sleep"), left_(time) {}

  private:
    bool step(Deadline) override {
        const auto slice = std::min(left_, std::chrono::milliseconds(1));
        std::this_thread::sleep_for(slice);
        left_ -= slice;
        return left_ > std::chrono::milliseconds::zero();
    }
    void finish() override {}

    std::chrono::milliseconds left_;
};

class DummyTask final : public Task {
  public:
    DummyTask() : Task("dummy") {}

  private:
    bool step(Deadline) override { return false; }
};

}  // namespace

void test_queueLoadLibrary(const char* name) {
    instance()->add(std::make_shared<LoadLibraryTask>(name ? name : ""));
}

void test_queueSleepTask(int milliseconds) {
    const std::chrono::milliseconds time(std::max(milliseconds, 0));
    instance()->add(std::make_shared<SleepTask>(time));
}

bool test_queueNewTaskIfNonParSessions() {
    if (zdutil::contextmgr::ContextRegistry::count() > 1)
        return false;
    instance()->add(std::make_shared<DummyTask>());
    return true;
}

}  // namespace Performance::CooperativeTaskManager
