// Every published method with each of its requests for memory refused in turn: it fails as a whole
// and leaves everything as it was, or does what it is for; and the next call works.
#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <map>
#include <new>
#include <string>
#include <vector>

#include "tests/native/described_array.hpp"
#include "tests/native/failing_memory.hpp"
#include "tests/native/published_methods.hpp"
#include "zandor/instrument/controls.hpp"
#include "zandor/performance/task_manager.hpp"
#include "zandor/runtime/console.hpp"

namespace {

namespace manager = Performance::CooperativeTaskManager;
using described::describe;
using failing_memory::Failure;
using failing_memory::Plan;
using namespace published;
using zandor::Value;

/// What the console was given, as far as memory was there to keep it.
std::string console;

int keep(const char* given, std::size_t length) noexcept {
    try {
        console.append(given, length);
    } catch (const std::bad_alloc&) {
        return -1;
    }
    return static_cast<int>(length);
}

const std::string context = "context";

void level(Performance::Pauseable& pauseable) {
    while (pauseable.pauseDepth() > 0)
        pauseable.resume();
    while (pauseable.pauseDepth() < 0)
        pauseable.pause();
}

void emptyEverything() {
    for (const char* name : {"recorder", "counter", "logger", "externalEventsAggregator"})
        call(std::string("instrument.") + name + ".stop");
    call("instrument.profiler.stop");
    call("instrument.recorder.clearAllEventData");
    call("instrument.counter.resetAllEventCounts");
    call("instrument.controls.disableAll");
    call("cooperativeTaskManager.removeAllTasks");
    level(*manager::instance());
    level(*manager::ppe());
}

/// Something of everything: events with contexts, recorded, counted and profiled; rules and tasks,
/// more of them than the first piece of a queue holds.
void prepare() {
    emptyEverything();
    call("instrument.controls.enable", arguments(text("own")));
    call("instrument.controls.enableWithContextEntry", arguments(text("ruled"), texts({"n", "a"})));
    call("instrument.counter.start");
    call("instrument.recorder.start");
    call("instrument.profiler.start");
    call("instrument.controls.disableWithContextEntry",
         arguments(text("ruled"), texts({"n", "b"})));
    for (const char* name : {"first", "second"}) {
        const OpenEvent outer = startEvent(name, {"n", "a", "m", "b"});
        call("instrument.testAPI_addSomethingToInstrumentation", arguments(Value::real(0)));
        stopEvent(name, {}, outer);
    }
    for (int task = 0; task < 40; ++task)
        call("utils.queueDummyTaskIfNonParSessions");
    console.clear();
}

/// All that a call may have changed, but which names are registered.
std::string state() {
    std::string all;
    for (const char* name : {"recorder", "profiler", "counter", "logger"})
        all += describe(call(std::string("instrument.") + name + ".isActive")) + " ";
    all += describe(call("instrument.recorder.getAllEventPoints")) + "\n";
    all += describe(call("instrument.counter.getAllEventCountsByContext")) + "\n";
    const instrument::ContextSet a{{"n", "a"}}, b{{"n", "b"}};
    for (const char* name : {"own", "ruled", "first", "fresh"})
        for (const bool on :
             {instrument::controls.isEnabled(name), instrument::controls.isEnabled(name, a),
              instrument::controls.isEnabled(name, b)})
            all += on ? "+" : "-";
    all += instrument::controls.wereAllEnabled() ? " all" : "";
    for (const manager::TaskSession* session : {manager::instance(), manager::ppe()})
        all += " " + std::to_string(session->getNumPendingTasks(true)) + " tasks, paused " +
               std::to_string(session->pauseDepth());
    return all;
}

using MakeArguments = std::function<Arguments()>;

MakeArguments named(const char* name) {
    return [=] { return arguments(text(name)); };
}
MakeArguments inContext(const char* name) {
    return [=] { return arguments(text(name), texts({"n", "a"})); };
}

/// What methods with arguments are called with.
const std::map<std::string, MakeArguments>& argumentsByName() {
    static const std::map<std::string, MakeArguments> table = [] {
        const std::string release = Methods::get().folder() / "release.xml";
        std::ofstream(release) << "<product><release>of this year, or the next</release></product>";
        const MakeArguments twoTexts = [] { return arguments(text("name"), text("detail")); };
        const auto real = [](double value) { return arguments(Value::real(value)); };
        std::map<std::string, MakeArguments> made{
            {"utils.queueLoadLibrary", named("libm.so.6")},
            {"utils.loadLibrary", named("libm.so.6")},
            {"utils.loadLibraries",
             [] {
                 return arguments(texts({"libm.so.6", "libc.so.6"}));
             }},
            {"utils.queueSleepTask", [] { return arguments(Value::integer(1)); }},
            {"utils.getReleseFromXMLFile", [=] { return arguments(text(release)); }},
            {"instrument.testAPI_addSomethingToInstrumentation", [=] { return real(1e-6); }},
            {"cooperativeTaskManager.finishTaskByName", named("dummy")},
            {"cooperativeTaskManager.process",
             [] { return arguments(Value::unsignedInteger(1'000'000'000)); }},
            {"cooperativeTaskManager.setLoggingEnabled",
             [] { return arguments(Value::logical(true)); }},
            {"productStats.logEventTime", twoTexts},
            {"productStats.logEventBeginTime", twoTexts},
            {"productStats.logEventEndTime", twoTexts},
            {"instrument.instruments.startEvent", inContext("first")},
            {"instrument.instruments.stopEvent",
             [] {
                 return arguments(text("first"), texts({"n", "a"}), Value::unsignedInteger(1),
                                  Value::unsignedInteger(1));
             }},
            {"instrument.recorder.getAllCompleteEventsTraceEventJsonWithFilter",
             [=] { return real(0); }},
            {"instrument.counter.resetEventCount", named("first")},
            {"instrument.counter.getEventCountForContext", inContext("first")},
        };
        for (const char* name : {"has", "isEnabled", "enable", "disable"})
            made.emplace(std::string("instrument.controls.") + name, named("fresh"));
        for (const char* name :
             {"isEnabledWithContext", "enableWithContextEntry", "disableWithContextEntry"})
            made.emplace(std::string("instrument.controls.") + name, inContext("ruled"));
        for (const char* name : {"EventPoints", "Events", "EventStats", "EventStatsByContext",
                                 "EventStatsByContextEntry"})
            made.emplace(std::string("instrument.recorder.get") + name, named("first"));
        for (const char* name : {"EventPoints", "Events", "EventStats"})
            made.emplace("instrument.recorder.get" + std::string(name) + "ForContext",
                         inContext("first"));
        for (const char* name : {"EventCount", "EventCountsByContext", "EventCountsByContextEntry"})
            made.emplace("instrument.counter.get" + std::string(name), named("first"));
        return made;
    }();
    return table;
}

Arguments argumentsOf(const std::string& name) {
    const auto found = argumentsByName().find(name);
    return found == argumentsByName().end() ? Arguments() : found->second();
}

struct Outcome {
    std::string result;  ///< or the error
    bool failed = false;
    std::string after;
    std::string printed;
};

Outcome outcomeOf(const std::string& name) {
    Outcome outcome;
    outcome.result = describe(call(name, argumentsOf(name)));
    outcome.printed = described::withoutNumbers(console);
    outcome.after = state();
    return outcome;
}

/// The call with a failure; nothing where the failure did not come.
bool failingOutcomeOf(const std::string& name, Plan plan, Outcome& outcome) {
    Arguments values = argumentsOf(name);
    const zandor::Method& method = Methods::get().byName().at(name);
    Value result;
    std::string error;
    error.reserve(256);
    bool came = false;
    {
        const Failure failure(plan);
        try {
            result = method.call(values);
        } catch (const std::exception& caught) {
            outcome.failed = true;
            error.assign(caught.what(), std::min<std::size_t>(std::strlen(caught.what()), 250));
        }
        came = failure.came();
    }
    outcome.result = outcome.failed ? error : describe(result);
    outcome.printed = described::withoutNumbers(console);
    outcome.after = state();
    return came;
}

/// The profile is taken out before its table is made, and listening ended before that.
bool mayStopHalfway(const std::string& name) {
    return name.starts_with("instrument.profiler.stop");
}

void expectEachFailureToBeWhole(const std::string& name, bool onlyOne) {
    prepare();
    const std::string before = state();
    const Outcome good = outcomeOf(name);
    prepare();
    const std::size_t arrays = matrix::liveArrayCount();
    for (std::uint64_t first = 1; first < 5'000; ++first) {
        prepare();
        Outcome outcome;
        const bool came = failingOutcomeOf(name, {first, onlyOne}, outcome);
        SCOPED_TRACE(name + ", request " + std::to_string(first) +
                     (onlyOne ? " alone" : " and later ones") + ": " + outcome.result);
        EXPECT_EQ(matrix::liveArrayCount(), arrays);
        if (!came) {
            testing::Test::RecordProperty(name + (onlyOne ? " alone" : " and later"),
                                          static_cast<int>(first - 1));
            EXPECT_FALSE(outcome.failed);
            return;
        }
        if (outcome.failed && mayStopHalfway(name)) {
            EXPECT_EQ(outcome.after, good.after);
        } else if (outcome.failed) {
            EXPECT_EQ(outcome.after, before);
            const Outcome again = outcomeOf(name);
            EXPECT_EQ(again.result, good.result);
            EXPECT_EQ(again.after, good.after);
        } else {
            EXPECT_EQ(outcome.result, good.result);
            EXPECT_EQ(outcome.after, good.after);
        }
        if (testing::Test::HasFailure())
            return;
    }
    FAIL() << name << " asks for memory without end";
}

class FailingMethods : public testing::TestWithParam<const char*> {
  protected:
    void SetUp() override { before_ = zandor::setConsoleSink(keep); }
    void TearDown() override {
        emptyEverything();
        zandor::setConsoleSink(before_);
    }

  private:
    zandor::ConsoleSink before_ = nullptr;
};

TEST_P(FailingMethods, FailAsAWholeAndWorkAgain) {
    const std::string prefix = GetParam();
    for (const auto& [name, method] : Methods::get().byName()) {
        if (name.substr(0, name.rfind('.') + 1) != prefix)
            continue;
        for (const bool onlyOne : {true, false})
            expectEachFailureToBeWhole(name, onlyOne);
    }
}

INSTANTIATE_TEST_SUITE_P(Namespaces, FailingMethods,
                         testing::Values("utils.", "cooperativeTaskManager.", "productStats.",
                                         "instrument.", "instrument.instruments.",
                                         "instrument.controls.", "instrument.recorder.",
                                         "instrument.profiler.", "instrument.counter.",
                                         "instrument.externalEventsAggregator.",
                                         "instrument.logger."));

}  // namespace
