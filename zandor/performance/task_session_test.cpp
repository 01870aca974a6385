#include "zandor/performance/task_manager.hpp"

#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>

#include "zandor/performance/testing_tasks.hpp"
#include "zandor/runtime/console.hpp"

namespace Performance::CooperativeTaskManager::testing {
namespace {

using std::chrono::microseconds;

TEST(TaskSession, RunsTasksInOrderEachToItsEnd) {
    TaskSession session("s");
    std::string order;
    addSteps(session, "a", 2, [&] { order += 'a'; });
    addSteps(session, "b", 1, [&] { order += 'b'; });
    EXPECT_FALSE(session.process(ample));
    EXPECT_EQ(order, "aab");
    EXPECT_EQ(session.getNumPendingTasks(true), 0);
}

TEST(TaskSession, StartsNoStepAfterTheDeadline) {
    TaskSession session("s");
    const auto first = addSteps(session, "a", 1, [] {
        const auto end = Deadline::clock::now() + std::chrono::milliseconds(2);
        while (Deadline::clock::now() < end)
            continue;
    });
    const auto second = addSteps(session, "b", 1);
    EXPECT_TRUE(session.process(std::chrono::milliseconds(1)));
    EXPECT_LE(first->stepsDone(), 1);
    EXPECT_EQ(second->stepsDone(), 0);
}

TEST(TaskSession, SpendsNoBudgetWhereThereIsNone) {
    TaskSession session("s");
    const auto task = addSteps(session, "a", 1);
    EXPECT_TRUE(session.process(microseconds(0)));
    EXPECT_TRUE(session.process(microseconds(-1)));
    EXPECT_TRUE(session.process(microseconds::min()));
    EXPECT_EQ(task->stepsDone(), 0);
}

TEST(TaskSession, HasNoEndWhereTheBudgetIsBeyondTheClock) {
    TaskSession session("s");
    const auto task = addSteps(session, "a", 3);
    EXPECT_FALSE(session.process(microseconds::max()));
    EXPECT_EQ(task->stepsDone(), 3);
}

TEST(TaskSession, DoesNothingWhilePaused) {
    TaskSession session("s");
    const auto task = addSteps(session, "a", 1);
    session.pause();
    EXPECT_TRUE(session.process(ample));
    EXPECT_EQ(task->stepsDone(), 0);
    session.resume();
    EXPECT_FALSE(session.process(ample));
}

TEST(TaskSession, CountsThePauseDepthBelowZero) {
    TaskSession session("s");
    session.resume();
    session.resume();
    EXPECT_EQ(session.pauseDepth(), -2);
    session.pause();
    EXPECT_FALSE(session.isPaused());
    session.pause();
    EXPECT_FALSE(session.isPaused());
    session.pause();
    EXPECT_TRUE(session.isPaused());
}

TEST(TaskSession, StopsBetweenStepsWhenOneOfThemPausesIt) {
    TaskSession session("s");
    const auto task = addSteps(session, "a", 3, [&] { session.pause(); });
    EXPECT_TRUE(session.process(ample));
    EXPECT_EQ(task->stepsDone(), 1);
}

TEST(TaskSession, FinishesEvenWhenPaused) {
    TaskSession session("s");
    const auto task = addSteps(session, "a", 3);
    session.pause();
    task->finishNow();
    EXPECT_EQ(task->stepsDone(), 3);
    EXPECT_FALSE(task->isPending());
}

TEST(TaskSession, ReturnsAtOnceWhenProcessedFromItsOwnTask) {
    TaskSession session("s");
    bool left = false;
    addSteps(session, "a", 1, [&] {
        EXPECT_TRUE(session.isProcessing());
        left = session.process(ample);
    });
    const auto behind = addSteps(session, "b", 1, [&] { EXPECT_TRUE(left); });
    EXPECT_FALSE(session.process(ample));
    EXPECT_EQ(behind->stepsDone(), 1);
    EXPECT_FALSE(session.isProcessing());
}

TEST(TaskSession, TakesTasksThatTasksAdd) {
    TaskSession session("s");
    std::shared_ptr<StepsTask> added;
    addSteps(session, "a", 1, [&] { added = addSteps(session, "b", 2); });
    EXPECT_FALSE(session.process(ample));
    EXPECT_EQ(added->stepsDone(), 2);
}

TEST(TaskSession, LetsATaskRemoveAllAndEndsWithThatStep) {
    TaskSession session("s");
    const auto task = addSteps(session, "a", 5, [&] { session.removeAll(); });
    const auto behind = addSteps(session, "b", 1);
    EXPECT_FALSE(session.process(ample));
    EXPECT_EQ(task->stepsDone(), 1);
    EXPECT_EQ(behind->stepsDone(), 0);
}

TEST(TaskSession, CompletesATaskThatFinishesItselfWhenItsStepReturns) {
    TaskSession session("s");
    std::shared_ptr<StepsTask> task;
    task = addSteps(session, "a", 4, [&] {
        if (task->isPending()) {
            task->finishNow();
            EXPECT_EQ(task->stepsDone(), 1);
            EXPECT_TRUE(session.findTaskByName("a").expired());
        }
    });
    EXPECT_FALSE(session.process(ample));
    EXPECT_EQ(task->stepsDone(), 4);
}

TEST(TaskSession, LetsATaskFinishTheOneBehindIt) {
    TaskSession session("s");
    const auto behind = std::make_shared<StepsTask>("b", 3);
    addSteps(session, "a", 1, [&] { behind->finishNow(); });
    session.add(behind);
    EXPECT_FALSE(session.process(ample));
    EXPECT_EQ(behind->stepsDone(), 3);
}

TEST(TaskSession, EndsATaskThatThrowsAndKeepsTheRest) {
    TaskSession session("s");
    addSteps(session, "a", 2, [] { throw std::runtime_error("no more"); });
    const auto behind = addSteps(session, "b", 1);
    EXPECT_THROW(session.process(ample), std::runtime_error);
    EXPECT_FALSE(session.isProcessing());
    EXPECT_EQ(session.getNumPendingTasks(true), 1);
    EXPECT_FALSE(session.process(ample));
    EXPECT_EQ(behind->stepsDone(), 1);
}

TEST(TaskSession, FinishesTheOthersWhenOneThrows) {
    TaskSession session("s");
    addSteps(session, "a", 1, [] { throw std::runtime_error("no more"); });
    const auto behind = addSteps(session, "b", 2);
    EXPECT_THROW(session.finishNow(), std::runtime_error);
    EXPECT_EQ(behind->stepsDone(), 2);
    EXPECT_EQ(session.getNumPendingTasks(true), 0);
}

TEST(TaskSession, DoesNotFindATaskFromTheMomentItsFinishBegins) {
    TaskSession session("s");
    bool found = true;
    const auto task =
        addSteps(session, "a", 1, [&] { found = session.findTaskByName("a").lock() != nullptr; });
    EXPECT_EQ(session.findTaskByName("a").lock(), task);
    task->finishNow();
    EXPECT_FALSE(found);
}

TEST(TaskSession, ReleasesFinishedTasksOnCleanup) {
    TaskSession session("s");
    std::weak_ptr<Task> task = addSteps(session, "a", 1);
    task.lock()->finishNow();
    EXPECT_FALSE(task.expired());
    session.cleanup();
    EXPECT_TRUE(task.expired());
}

TEST(TaskSession, HoldsNoTaskThatItCompleted) {
    TaskSession session("s");
    const std::weak_ptr<Task> task = addSteps(session, "a", 1);
    session.process(ample);
    EXPECT_TRUE(task.expired());
}

TEST(TaskSession, HoldsNoTaskThatItFinished) {
    TaskSession session("s");
    const std::weak_ptr<Task> task = addSteps(session, "a", 1);
    session.finishNow();
    EXPECT_TRUE(task.expired());
}

TEST(TaskSession, CountsNestedTasksWhereAsked) {
    TaskSession session("s");
    const auto nested = std::make_shared<TaskSession>("nested");
    session.add(nested);
    addSteps(session, "a", 1);
    EXPECT_EQ(session.getNumPendingTasks(false), 1);  // a dry session has no work
    addSteps(*nested, "b", 1);
    addSteps(*nested, "c", 1);
    EXPECT_EQ(session.getNumPendingTasks(false), 2);
    EXPECT_EQ(session.getNumPendingTasks(true), 4);
}

TEST(TaskSession, RunsAndFindsTasksOfNestedSessions) {
    TaskSession session("s");
    const auto nested = std::make_shared<TaskSession>("nested");
    session.add(nested);
    std::string order;
    const auto inner = addSteps(*nested, "b", 2, [&] { order += 'b'; });
    addSteps(session, "a", 1, [&] { order += 'a'; });
    EXPECT_EQ(session.findTaskByName("b").lock(), inner);
    EXPECT_EQ(session.findTaskByName("nested").lock(), nested);
    EXPECT_FALSE(session.process(ample));
    EXPECT_EQ(order, "bba");
}

TEST(TaskSession, PassesByANestedSessionThatIsPaused) {
    TaskSession session("s");
    const auto nested = std::make_shared<TaskSession>("nested");
    session.add(nested);
    const auto inner = addSteps(*nested, "b", 1);
    const auto outer = addSteps(session, "a", 1);
    nested->pause();
    EXPECT_TRUE(session.process(ample));
    EXPECT_EQ(inner->stepsDone(), 0);
    EXPECT_EQ(outer->stepsDone(), 1);
    session.finishNow();
    EXPECT_EQ(inner->stepsDone(), 1);
}

TEST(TaskSession, TakesANestedSessionAgainAfterItRanDry) {
    TaskSession session("s");
    const auto nested = std::make_shared<TaskSession>("nested");
    session.add(nested);
    addSteps(*nested, "b", 1);
    EXPECT_FALSE(session.process(ample));
    session.cleanup();
    const auto later = addSteps(*nested, "c", 1);
    EXPECT_FALSE(session.process(ample));
    EXPECT_EQ(later->stepsDone(), 1);
}

TEST(TaskSession, RefusesWhatItCannotHold) {
    TaskSession session("s");
    const auto nested = std::make_shared<TaskSession>("nested");
    const auto deeper = std::make_shared<TaskSession>("deeper");
    nested->add(deeper);
    EXPECT_THROW(session.add(nullptr), std::invalid_argument);
    EXPECT_THROW(deeper->add(nested), std::invalid_argument);
    EXPECT_THROW(nested->add(nested), std::invalid_argument);
    nested->finishNow();
    EXPECT_THROW(addSteps(*nested, "late", 1), std::invalid_argument);
}

std::string logged;
int keepLog(const char* text, std::size_t length) noexcept {
    logged.append(text, length);
    return static_cast<int>(length);
}

TEST(TaskSession, WritesPendingTasksWhetherLoggingIsOnOrNot) {
    TaskSession session("s");
    const auto nested = std::make_shared<TaskSession>("100%s");
    session.add(nested);
    addSteps(*nested, "b", 1);
    addSteps(session, "a", 1);
    logged.clear();
    const auto before = zandor::setConsoleSink(keepLog);
    session.logPendingTasks();
    zandor::setConsoleSink(before);
    EXPECT_EQ(logged, "s: 3 pending tasks\n  100%s\n    b\n  a\n");
}

}  // namespace
}  // namespace Performance::CooperativeTaskManager::testing
