#include "zandor/instrument/instrument.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <vector>

#include "zandor/instrument/testing/event_log.hpp"

namespace instrument {
namespace {

using test_support::ControlsTest;
using test_support::CountingListener;
using test_support::EventLog;
using test_support::HandlerListener;

class InstrumentTest : public ControlsTest {
  protected:
    void SetUp() override {
        ControlsTest::SetUp();
        controls.enable("solve");
    }
    const Instrument solve{"solve"};
};

TEST_F(InstrumentTest, AnInstrumentRegistersItsName) {
    EXPECT_FALSE(controls.has("instrument.registers"));
    const Instrument made("instrument.registers");
    EXPECT_TRUE(controls.has("instrument.registers"));
    EXPECT_STREQ(made.name(), "instrument.registers");
    EXPECT_EQ(made.handle(), Instrument("instrument.registers").handle());
    EXPECT_THROW(Instrument(std::string_view("a\0b", 3)), std::invalid_argument);
}

TEST_F(InstrumentTest, AScopeIsAStartAndAStop) {
    EventLog log;
    listeners.add(log);
    {
        Scope outer{solve, {{"n", 3}, {"method", "cg"}, {"tol", 1e-6}, {"exact", true}}};
        Scope inner{solve};
    }
    EXPECT_EQ(log.story(),
              "start solve [exact=true method=cg n=3 tol=1e-06], start solve, stop solve, "
              "stop solve [exact=true method=cg n=3 tol=1e-06]");
    const auto events = log.events();
    EXPECT_EQ(events[0].id, events[3].id);
    EXPECT_EQ(events[1].id, events[2].id);
}

TEST_F(InstrumentTest, NothingIsHeardWhileTheInstrumentIsOff) {
    EventLog log;
    listeners.add(log);
    controls.disable("solve");
    {
        Scope scope{solve};
        Scope withContext{solve, {{"n", 3}}};
        solve.instant();
        solve.instant({{"n", 3}});
        const OpenEvent event = solve.start();
        EXPECT_EQ(event.id(), disabledEventId);
        controls.enable("solve");
        solve.stop(event);
    }
    EXPECT_EQ(log.story(), "");
}

TEST_F(InstrumentTest, WithoutListenerAStartHasTheReservedIdentity) {
    const OpenEvent event = solve.start({{"n", 3}});
    EXPECT_EQ(event.id(), noListenerEventId);
    EventLog log;
    listeners.add(log);
    solve.stop(event);
    solve.stop(OpenEvent());
    EXPECT_EQ(log.story(), "");
}

TEST_F(InstrumentTest, AStopIsDeliveredWheneverItsStartWas) {
    EventLog log;
    listeners.add(log);
    OpenEvent event;
    {
        Scope scope{solve, {{"n", 3}}};
        event = solve.start({{"n", 4}});
        controls.disable("solve");
        controls.disable("solve", ContextEntry{"n", "3"});
    }
    solve.stop(event);
    EXPECT_EQ(log.story(),
              "start solve [n=3], start solve [n=4], stop solve [n=3], stop solve [n=4]");
}

TEST_F(InstrumentTest, NoStopIsDeliveredWhenNobodyListensAnyMore) {
    EventLog log;
    listeners.add(log);
    {
        Scope scope{solve, {{"n", 3}}};
        const OpenEvent event = solve.start();
        listeners.remove(log);
        solve.stop(event);
    }
    EXPECT_EQ(log.story(), "start solve [n=3], start solve");
}

TEST_F(InstrumentTest, AStopMayComeFromAnotherThread) {
    EventLog log;
    listeners.add(log);
    OpenEvent event = solve.start({{"n", 3}});
    std::thread([this, event] { solve.stop(event); }).join();
    const auto events = log.events();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[1].id, event.id());
    EXPECT_EQ(events[1].context, "n=3");
    EXPECT_NE(events[1].sourceId, event.id().sourceId);
}

TEST_F(InstrumentTest, AScopeMayEndOnAnotherThread) {
    EventLog log;
    listeners.add(log);
    for (int i = 0; i < 2000; ++i) {
        auto scope = std::make_unique<Scope>(solve, std::initializer_list<ContextArg>{{"n", i}});
        std::thread([ended = std::move(scope)] {}).join();
    }
    EXPECT_EQ(log.events().size(), 4000u);
    EXPECT_EQ(log.events().back().context, "n=1999");
}

TEST_F(InstrumentTest, AStopHasTheStartsTextsWhenTheCallersAreGone) {
    EventLog log;
    listeners.add(log);
    OpenEvent event;
    {
        std::string name = "name of the caller";
        std::string value = "value of the caller";
        event = solve.start({{name, value}});
        name.assign(name.size(), 'x');
        value.assign(value.size(), 'x');
    }
    solve.stop(event);
    EXPECT_EQ(log.events().back().context, "name of the caller=value of the caller");
}

TEST_F(InstrumentTest, AContextOfManyEntriesIsKeptWhole) {
    EventLog log;
    listeners.add(log);
    OpenEvent copy;
    {
        Scope scope{solve,
                    {{"a", 1}, {"b", 2}, {"c", 3}, {"d", 4}, {"e", 5}, {"f", 6}, {"g", "seven"}}};
        const OpenEvent event =
            solve.start({{"a", 1}, {"b", 2}, {"c", 3}, {"d", 4}, {"e", "five"}});
        copy = event;
    }
    solve.stop(copy);
    const auto events = log.events();
    EXPECT_EQ(events[2].context, "a=1 b=2 c=3 d=4 e=5 f=6 g=seven");
    EXPECT_EQ(events[3].context, "a=1 b=2 c=3 d=4 e=five");
}

TEST_F(InstrumentTest, OfEntriesWithEqualNamesTheFirstCounts) {
    EventLog log;
    listeners.add(log);
    controls.disable("solve", ContextEntry{"n", "2"});
    { Scope scope{solve, {{"n", 1}, {"n", 2}}}; }
    { Scope scope{solve, {{"n", 2}, {"n", 1}}}; }
    EXPECT_EQ(log.story(), "start solve [n=1], stop solve [n=1]");
}

TEST_F(InstrumentTest, ContextRulesDecideForNumbersAsForTexts) {
    EventLog log;
    listeners.add(log);
    controls.disable("solve");
    controls.enable("solve", ContextEntry{"n", "40"});
    controls.enable("solve", ContextEntry{"tol", "0.5"});
    controls.enable("solve", ContextEntry{"exact", "true"});
    solve.instant();
    solve.instant({{"n", 40}});
    solve.instant({{"n", "40"}});
    solve.instant({{"n", 41u}});
    solve.instant({{"tol", 0.5f}});
    solve.instant({{"exact", true}, {"n", 1}});
    { Scope scope{solve, {{"n", 40ull}}}; }
    EXPECT_EQ(log.story(),
              "instant solve [n=40], instant solve [n=40], instant solve [tol=0.5], "
              "instant solve [exact=true n=1], start solve [n=40], stop solve [n=40]");
}

TEST_F(InstrumentTest, AListenersExceptionLeavesAStartButNoDestructor) {
    HandlerListener throwing(
        [](EventPointType type, auto&&...) { throw std::runtime_error(getName(type)); });
    EventLog log;
    controls.enable("instrument.calm");
    listeners.add(log);
    {
        Scope scope{solve, {{"n", 3}}};
        listeners.add(throwing);
    }
    EXPECT_THROW(Scope scope(solve), std::runtime_error);
    EXPECT_THROW(Scope scope(solve, {{"n", 1}}), std::runtime_error);
    EXPECT_THROW(solve.instant(), std::runtime_error);
    EXPECT_THROW(solve.start(), std::runtime_error);
    listeners.remove(throwing);
    EXPECT_EQ(log.story(),
              "start solve [n=3], stop solve [n=3], start solve, start solve [n=1], "
              "instant solve, start solve");
}

TEST_F(InstrumentTest, AScopeInsideAListenerIsNoEvent) {
    EventLog log;
    HandlerListener noisy([&](auto&&...) { Scope scope(solve, {{"inner", 1}}); });
    listeners.add(log);
    listeners.add(noisy);
    { Scope scope{solve}; }
    EXPECT_EQ(log.story(), "start solve, stop solve");
}

TEST_F(InstrumentTest, AScopeOpenedOutsideMayEndInsideAListener) {
    EventLog log;
    listeners.add(log);
    auto scope = std::make_unique<Scope>(solve, std::initializer_list<ContextArg>{{"n", 1}});
    HandlerListener ending([&](auto&&...) { scope.reset(); });
    listeners.add(ending);
    const std::uint64_t before = listeners.suppressedEvents();
    solve.instant();
    EXPECT_EQ(listeners.suppressedEvents(), before + 1);
    EXPECT_EQ(log.story(), "start solve [n=1], instant solve");
}

int evaluated = 0;

int expensive() {
    return ++evaluated;
}

void runMacros() {
    ZANDOR_SCOPE("macro.scope");
    ZANDOR_SCOPE("macro.context", {"n", expensive()}, {"method", "cg"});
    ZANDOR_INSTANT("macro.instant", {"n", expensive()});
    ZANDOR_INSTANT("macro.plain");
}

TEST_F(InstrumentTest, MacrosEvaluateNothingAndRegisterNothingUntilTheyMayBeHeard) {
    evaluated = 0;
    controls.enableAll(true);
    runMacros();
    EXPECT_EQ(evaluated, 0);
    EXPECT_FALSE(controls.has("macro.scope"));
    EventLog log;
    listeners.add(log);
    controls.enableAll(false);
    runMacros();
    EXPECT_EQ(evaluated, 0);
    EXPECT_TRUE(controls.has("macro.scope"));
    controls.enableAll(true);
    runMacros();
    EXPECT_EQ(evaluated, 2);
    EXPECT_EQ(log.story(),
              "start macro.scope, start macro.context [method=cg n=1], "
              "instant macro.instant [n=2], instant macro.plain, "
              "stop macro.context [method=cg n=1], stop macro.scope");
}

TEST_F(InstrumentTest, ScopesNestDeeply) {
    CountingListener counting;
    listeners.add(counting);
    std::vector<std::unique_ptr<Scope>> scopes;
    for (int round = 0; round < 3; ++round) {
        for (int i = 0; i < 5000; ++i)
            scopes.push_back(std::make_unique<Scope>(solve));
        scopes.clear();
    }
    EXPECT_EQ(counting.starts, 15'000u);
    EXPECT_EQ(counting.stops, 15'000u);
}

}  // namespace
}  // namespace instrument
