#include "zandor/performance/task_manager.hpp"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <barrier>
#include <future>

#include "zandor/performance/testing_tasks.hpp"
#include "zandor/runtime/context.hpp"

namespace Performance::CooperativeTaskManager::testing {
namespace {

class TaskManager : public ::testing::Test {
  protected:
    void TearDown() override {
        instance()->removeAll();
        ppe()->removeAll();
        setLoggingEnabled(false);
    }
};

TEST_F(TaskManager, HasTwoSessionsThatLast) {
    ASSERT_NE(instance(), nullptr);
    ASSERT_NE(ppe(), nullptr);
    EXPECT_NE(instance(), ppe());
    EXPECT_EQ(instance(), instance());
    addSteps(*instance(), "a", 1);
    instance()->finishNow();
    EXPECT_EQ(addSteps(*instance(), "b", 1)->isPending(), true);
    EXPECT_FALSE(instance()->process(ample));
}

TEST_F(TaskManager, LogsNothingAtFirst) {
    EXPECT_FALSE(getLoggingEnabled());
    setLoggingEnabled(true);
    EXPECT_TRUE(getLoggingEnabled());
}

TEST_F(TaskManager, FinishesAllFromInsideATask) {
    const auto behind = addSteps(*instance(), "b", 2);
    TaskSession front("front");
    addSteps(front, "a", 1, [] { instance()->finishNow(); });
    EXPECT_FALSE(front.process(ample));
    EXPECT_EQ(behind->stepsDone(), 2);
    addSteps(*instance(), "a", 1, [] { instance()->finishNow(); });
    const auto last = addSteps(*instance(), "c", 3);
    EXPECT_FALSE(instance()->process(ample));
    EXPECT_EQ(last->stepsDone(), 3);
}

TEST_F(TaskManager, SleepsInSlicesAndSkipsTheRestWhenFinished) {
    test_queueSleepTask(1000 * 3600);
    EXPECT_EQ(instance()->getNumPendingTasks(true), 1);
    EXPECT_TRUE(instance()->process(std::chrono::milliseconds(3)));
    instance()->finishNow();
    EXPECT_EQ(instance()->getNumPendingTasks(true), 0);
    test_queueSleepTask(-5);
    EXPECT_FALSE(instance()->process(ample));
}

TEST_F(TaskManager, QueuesADummyOnlyInAProcessOfOneMachine) {
    EXPECT_EQ(test_queueNewTaskIfNonParSessions(),
              zdutil::contextmgr::ContextRegistry::count() == 1);
    zdutil::contextmgr::ContextRegistry::create();
    EXPECT_FALSE(test_queueNewTaskIfNonParSessions());
}

TEST_F(TaskManager, RunsATaskOnOneThreadAtATime) {
    constexpr int threads = 8;
    constexpr int steps = 2000;
    std::atomic<int> inside = 0;
    std::atomic<bool> together = false;
    const auto task = addSteps(*instance(), "a", steps, [&] {
        together = together || ++inside != 1;
        --inside;
    });
    std::barrier start(threads);
    std::vector<std::thread> pool;
    for (int i = 0; i < threads; ++i)
        pool.emplace_back([&] {
            start.arrive_and_wait();
            while (task->isPending()) {
                instance()->process(std::chrono::microseconds(50));
                task->process(std::chrono::microseconds(50));
            }
        });
    for (auto& thread : pool)
        thread.join();
    EXPECT_FALSE(together);
    EXPECT_EQ(task->stepsDone(), steps);
}

TEST_F(TaskManager, WaitsForTheThreadThatCompletesATask) {
    std::promise<void> entered;
    std::promise<void> leave;
    std::atomic<bool> first = true;
    const auto task = addSteps(*instance(), "a", 2, [&] {
        if (first.exchange(false)) {
            entered.set_value();
            leave.get_future().wait();
        }
    });
    std::thread runner([] { instance()->process(ample); });
    entered.get_future().wait();
    std::thread finisher([&] {
        task->finishNow();
        EXPECT_EQ(task->stepsDone(), 2);
    });
    while (task->isPending())
        std::this_thread::yield();
    leave.set_value();
    finisher.join();
    runner.join();
}

TEST_F(TaskManager, FinishesCrosswiseFromInsideTasksWithoutWaiting) {
    std::barrier both(2);
    std::shared_ptr<StepsTask> first;
    std::shared_ptr<StepsTask> second;
    TaskSession one("one");
    TaskSession two("two");
    const auto meetAndFinish = [&both](const std::shared_ptr<StepsTask>& other) {
        both.arrive_and_wait();
        other->finishNow();
    };
    first = addSteps(one, "a", 1, [&] { meetAndFinish(second); });
    second = addSteps(two, "b", 1, [&] { meetAndFinish(first); });
    std::thread other([&] { two.process(ample); });
    one.process(ample);
    other.join();
    EXPECT_FALSE(first->isPending());
    EXPECT_FALSE(second->isPending());
}

TEST_F(TaskManager, TakesAddsFindsAndRemovalsFromManyThreads) {
    constexpr int rounds = 500;
    std::atomic<int> done = 0;
    std::vector<std::thread> pool;
    for (int i = 0; i < 3; ++i)
        pool.emplace_back([&] {
            for (int round = 0; round < rounds; ++round) {
                addSteps(*instance(), "a", 1, [&] { ++done; });
                if (const auto task = instance()->findTaskByName("a").lock())
                    task->finishNow();
                instance()->cleanup();
            }
        });
    pool.emplace_back([&] {
        while (done < 3 * rounds)
            instance()->process(std::chrono::microseconds(20));
    });
    for (auto& thread : pool)
        thread.join();
    EXPECT_EQ(done, 3 * rounds);
}

TEST_F(TaskManager, WorksInAChildWhoseParentWasInsideAStep) {
    std::promise<void> entered;
    std::promise<void> leave;
    addSteps(*instance(), "a", 1, [&] {
        entered.set_value();
        leave.get_future().wait();
    });
    std::thread runner([] { instance()->process(ample); });
    entered.get_future().wait();
    const pid_t child = fork();
    if (child == 0) {
        instance()->removeAll();
        const bool idle = !instance()->isProcessing();
        const auto task = addSteps(*instance(), "b", 1);
        instance()->finishNow();
        _exit(idle && task->stepsDone() == 1 ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    leave.set_value();
    runner.join();
}

}  // namespace
}  // namespace Performance::CooperativeTaskManager::testing
