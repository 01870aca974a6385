// Events in children: nothing is inherited but what the program set.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <thread>

#include "zandor/instrument/instrument.hpp"
#include "zandor/instrument/source.hpp"
#include "zandor/instrument/testing/event_log.hpp"
#include "zandor/instrument/thread_state.hpp"
#include "zandor/runtime/sanitizers.hpp"

namespace instrument {
namespace {

using test_support::ControlsTest;
using test_support::CountingListener;
using test_support::EventLog;
using test_support::HandlerListener;

/// A child that ends with what `check` says; one that hangs is ended by its alarm.
pid_t startChild(const std::function<bool()>& check) {
    const pid_t child = fork();
    if (child == 0) {
        alarm(60);
        _exit(check() ? 0 : 1);
    }
    return child;
}

bool wasRight(pid_t child) {
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool holdsInAChild(const std::function<bool()>& check) {
    return wasRight(startChild(check));
}

class ForkTest : public ControlsTest {
  protected:
    void SetUp() override {
        ControlsTest::SetUp();
        controls.enable("solve");
    }
    const Instrument solve{"solve"};
};

TEST_F(ForkTest, AChildEmitsAtOnceUnderANewSource) {
    EventLog log;
    listeners.add(log);
    solve.instant();
    const EventId parent = log.events()[0].id;
    log.clear();
    EXPECT_TRUE(holdsInAChild([&] {
        solve.instant();
        const EventId child = log.events().at(0).id;
        return child.sourceId > parent.sourceId && child.serialId == 1 &&
               detail::threadStateCounts().inUse == 1;
    }));
    solve.instant();
    EXPECT_EQ(log.events().at(0).id, (EventId{parent.sourceId, parent.serialId + 1}));
}

TEST_F(ForkTest, AThreadKeepsItsNameInAChild) {
    std::thread([&] {
        setThreadName("forking");
        EventLog log;
        listeners.add(log);
        EXPECT_TRUE(holdsInAChild([&] {
            solve.instant();
            return log.events().at(0).sourceName == "forking";
        }));
    }).join();
}

TEST_F(ForkTest, SwitchesAndRulesPassToAChild) {
    controls.disable("solve", ContextEntry{"n", "3"});
    controls.enableAll(true);
    EXPECT_TRUE(holdsInAChild([&] {
        const bool all = controls.wereAllEnabled() && controls.isEnabled("solve") &&
                         !solve.handle()->hasContextRules;
        controls.enableAll(false);
        controls.enable("solve", ContextEntry{"n", "4"});
        return all && solve.handle()->hasContextRules &&
               !controls.isEnabled("solve", ContextSet{ContextEntry{"n", "3"}});
    }));
    EXPECT_TRUE(controls.wereAllEnabled());
}

TEST_F(ForkTest, WhatAParentHadOpenItClosesItself) {
    EventLog log;
    listeners.add(log);
    {
        Scope scope{solve, {{"n", 1}}};
        const OpenEvent event = solve.start();
        log.clear();
        EXPECT_TRUE(holdsInAChild([&] {
            solve.stop(event);
            { Scope inner{solve}; }
            return log.story() == "start solve, stop solve";
        }));
        solve.stop(event);
    }
    EXPECT_EQ(log.story(), "stop solve, stop solve [n=1]");
}

TEST_F(ForkTest, AListenerMayFork) {
    std::vector<pid_t> children;
    HandlerListener forking([&](auto&&...) { children.push_back(fork()); });
    EventLog after;
    listeners.add(forking);
    listeners.add(after);
    solve.instant();
    if (children.at(0) == 0) {
        alarm(60);
        const bool left = after.events().empty();
        listeners.remove(forking);
        solve.instant();
        _exit(left && after.events().size() == 1 ? 0 : 1);
    }
    int status = 0;
    waitpid(children[0], &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(after.events().size(), 1u);
}

TEST_F(ForkTest, AChildOfAChildEmitsToo) {
    CountingListener counting;
    listeners.add(counting);
    EXPECT_TRUE(holdsInAChild([&] {
        solve.instant();
        return holdsInAChild([&] {
            solve.instant();
            std::thread([&] { solve.instant(); }).join();
            return counting.instants == 3;
        });
    }));
}

// Whatever the other threads are at when the process forks, the child finds no lock held.
TEST_F(ForkTest, ThousandsOfForksWhileThreadsEmitSwitchAndListen) {
    constexpr int forks = ZANDOR_SANITIZED ? 200 : 2000;
    std::atomic<bool> done{false};
    CountingListener counting;
    listeners.add(counting);
    const auto each = [&](const std::function<void(int)>& work) {
        return std::thread([&done, work] {
            for (int i = 0; !done; ++i)
                work(i);
        });
    };
    std::thread threads[] = {
        each([&](int i) {
            Scope scope(solve, {{"n", i % 100}, {"text", "some text"}});
        }),
        each([&](int i) {
            solve.instant({{"new text", std::to_string(i % 500)}});
        }),
        each([&](int) {
            CountingListener passing;
            listeners.add(passing);
            listeners.remove(passing);
        }),
        each([&](int i) {
            controls.enable("solve", ContextEntry{"n", std::to_string(i % 10)});
            controls.enableAll(true);
            controls.enableAll(false);
        }),
        each([&](int i) { controls.getHandle("fork." + std::to_string(i % 500)); }),
        each([&](int i) {
            setThreadName("thread " + std::to_string(i % 1000));
            std::thread([&] { solve.instant(); }).join();
        }),
    };
    const auto emitsAndListens = [&] {
        EventLog log;
        listeners.add(log);
        controls.enable("solve");
        { Scope scope(solve, {{"in the child", 1}}); }
        controls.getHandle("fork.child");
        const bool heard = log.events().size() == 2;
        listeners.remove(log);
        return heard;
    };
    int sound = 0;
    for (int i = 0; i < forks; i += 8) {
        pid_t children[8];
        for (pid_t& child : children)
            child = startChild(emitsAndListens);
        for (const pid_t child : children)
            sound += wasRight(child);
    }
    done = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(sound, forks);
}

}  // namespace
}  // namespace instrument
