// The methods of the namespace "cooperativeTaskManager", called as the host's users do.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>

#include "vantrace/testing/console.hpp"
#include "vantrace/testing/published.hpp"
#include "zandor/performance/task_manager.hpp"

namespace {

namespace manager = Performance::CooperativeTaskManager;
using vantrace_testing::text;
using zandor::Value;

template <typename... Values>
Value call(const std::string& name, Values&&... values) {
    return vantrace_testing::call("cooperativeTaskManager." + name,
                                  std::forward<Values>(values)...);
}

std::int64_t pending() {
    return call("getNumPendingTasks").asInteger();
}

/// Counts its completions.
class CountedTask : public manager::Task {
  public:
    CountedTask(std::string name, int& done, bool fails = false)
        : Task(std::move(name)), done_(done), fails_(fails) {}

  private:
    bool step(manager::Deadline) override {
        ++done_;
        if (fails_)
            throw std::runtime_error("no more");
        return false;
    }

    int& done_;
    const bool fails_;
};

class PublishedTaskManager : public testing::Test {
  protected:
    void TearDown() override {
        manager::instance()->removeAll();
        manager::ppe()->removeAll();
        manager::setLoggingEnabled(false);
    }

    void add(manager::TaskSession* session, const char* name, bool fails = false) {
        session->add(std::make_shared<CountedTask>(name, done_, fails));
    }

    int done_ = 0;
};

TEST_F(PublishedTaskManager, FinishesEveryTaskOfANameInTheMainSession) {
    for (int i = 0; i < 3; ++i)
        add(manager::instance(), "same");
    add(manager::instance(), "other");
    add(manager::ppe(), "same");
    call("finishTaskByName", text("same"));
    EXPECT_EQ(done_, 3);
    EXPECT_EQ(pending(), 1);
    EXPECT_EQ(manager::ppe()->getNumPendingTasks(true), 1);
}

TEST_F(PublishedTaskManager, DoesNothingForANameThatNoTaskBears) {
    add(manager::instance(), "other");
    call("finishTaskByName", text("same"));
    EXPECT_EQ(done_, 0);
}

TEST_F(PublishedTaskManager, PassesTheErrorOfATaskAndFindsItNoMore) {
    add(manager::instance(), "same", true);
    add(manager::instance(), "same");
    EXPECT_THROW(call("finishTaskByName", text("same")), std::runtime_error);
    EXPECT_EQ(pending(), 1);
    call("finishTaskByName", text("same"));
    EXPECT_EQ(done_, 2);
}

TEST_F(PublishedTaskManager, PausesEachSessionForItself) {
    call("pausePPE");
    EXPECT_FALSE(call("isPaused").asLogical());
    EXPECT_EQ(manager::ppe()->pauseDepth(), 1);
    call("resumePPE");
    call("pause");
    EXPECT_TRUE(call("isPaused").asLogical());
    call("resume");
    EXPECT_FALSE(call("isPaused").asLogical());
}

TEST_F(PublishedTaskManager, IsNotPausedAtADepthOfZeroOrBelow) {
    call("resume");
    EXPECT_FALSE(call("isPaused").asLogical());
    call("pause");
    EXPECT_FALSE(call("isPaused").asLogical());
    call("pause");
    EXPECT_TRUE(call("isPaused").asLogical());
    call("resume");
}

TEST_F(PublishedTaskManager, FinishesTheTasksOfBothSessions) {
    add(manager::instance(), "a");
    add(manager::ppe(), "b");
    call("pause");
    call("finishAllTasks");
    call("resume");
    EXPECT_EQ(done_, 2);
}

TEST_F(PublishedTaskManager, TouchesTheMainSessionAlone) {
    add(manager::ppe(), "b");
    EXPECT_EQ(pending(), 0);
    call("removeAllTasks");
    call("cleanup");
    const vantrace_testing::KeptConsole console;
    call("logPendingTasks");
    EXPECT_EQ(console.take(), "main: 0 pending tasks\n");
    EXPECT_EQ(manager::ppe()->getNumPendingTasks(true), 1);
}

TEST_F(PublishedTaskManager, ProcessesWithinTheBudgetAndTellsNothing) {
    add(manager::instance(), "a");
    EXPECT_EQ(call("process", Value::integer(0)).kind(), Value::Kind::none);
    EXPECT_EQ(done_, 0);
    const auto largest = std::numeric_limits<std::uint64_t>::max();
    call("process", Value::unsignedInteger(largest));  // a negative budget
    EXPECT_EQ(done_, 0);
    call("process", Value::unsignedInteger(largest / 2));
    EXPECT_EQ(done_, 1);
    EXPECT_FALSE(call("isProcessing").asLogical());
}

TEST_F(PublishedTaskManager, SaysWhatWasLastSetOfLogging) {
    EXPECT_FALSE(call("getLoggingEnabled").asLogical());
    call("setLoggingEnabled", Value::logical(true));
    EXPECT_TRUE(call("getLoggingEnabled").asLogical());
    EXPECT_TRUE(manager::getLoggingEnabled());
}

}  // namespace
