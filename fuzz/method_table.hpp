// The effect of each method, by its name below the root. Those that are not here have none that
// the model knows.
#pragma once

#include <map>
#include <string>

#include "fuzz/method_effects.hpp"
#include "zandor/performance/task_manager.hpp"

namespace fuzzing {

namespace manager = Performance::CooperativeTaskManager;

template <typename Act>
Effect plain(Act act) {
    return [=](MethodsModel& model, const Call& call) {
        act(model, call);
        return false;
    };
}
/// Refused for a name with a NUL.
template <typename Act>
Effect named(Act act) {
    return [=](MethodsModel& model, const Call& call) {
        const bool refused = hasNul(call.text);
        if (!refused)
            act(model, call);
        return refused;
    };
}
/// Refused for a list that is no single entry, and for a name with a NUL.
template <typename Act>
Effect withEntry(Act act) {
    return [=](MethodsModel& model, const Call& call) {
        const bool refused = call.list.size() != 2 || hasNul(call.text);
        if (!refused)
            act(model, call);
        return refused;
    };
}
/// Refused for a list that is no pairs.
template <typename Act>
Effect withPairs(Act act) {
    return [=](MethodsModel& model, const Call& call) {
        const bool refused = call.list.size() % 2 != 0;
        if (!refused)
            act(model, call);
        return refused;
    };
}

#define ACT [](MethodsModel & m, const Call& c)
#define ACT_ON_MODEL [](MethodsModel & m, const Call&)

inline void addControls(std::map<std::string, Effect>& table) {
    const std::string at = "instrument.controls.";
    table[at + "has"] = plain(ACT { expectLogical(c, m.controls.registered.contains(c.text)); });
    table[at + "isEnabledWithContext"] = [](MethodsModel&, const Call& c) {
        return c.list.size() != 2;
    };
    table[at + "enable"] = named(ACT { m.controls.setSwitch(c.text, true); });
    table[at + "disable"] = named(ACT { m.controls.setSwitch(c.text, false); });
    table[at + "enableWithContextEntry"] =
        withEntry(ACT { m.controls.setRule(c.text, c.list, true); });
    table[at + "disableWithContextEntry"] =
        withEntry(ACT { m.controls.setRule(c.text, c.list, false); });
    table[at + "wereAllEnabled"] = plain(ACT { expectLogical(c, m.controls.allEnabled); });
    table[at + "enableAll"] = plain(ACT_ON_MODEL { m.controls.enableAll(true); });
    table[at + "disableAll"] = plain(ACT_ON_MODEL { m.controls.disableAll(); });
}

inline void addRecorder(std::map<std::string, Effect>& table) {
    const std::string at = "instrument.recorder.";
    table[at + "isActive"] = plain(ACT { expectLogical(c, m.recorder.active); });
    table[at + "start"] = plain(ACT_ON_MODEL { m.recorder.start(m.controls); });
    table[at + "stop"] = plain(ACT_ON_MODEL { m.recorder.stop(m.controls); });
    table[at + "clearAllEventData"] = plain(ACT_ON_MODEL { m.recorder.points.clear(); });
    table[at + "getAllEventPoints"] = plain(ACT { expectPoints(c, m.recorder.points); });
    table[at + "getEventPoints"] = plain(ACT { expectPoints(c, m.recorder.pointsOf(c.text, {})); });
    table[at + "getEventPointsForContext"] =
        withPairs(ACT { expectPoints(c, m.recorder.pointsOf(c.text, entriesOf(c.list))); });
    table[at + "getAllEvents"] = plain(ACT { expectRows(c, m.recorder.events()); });
    table[at + "getEvents"] = plain(ACT { expectRows(c, m.recorder.eventsOf(c.text, {})); });
    table[at + "getEventsForContext"] =
        withPairs(ACT { expectRows(c, m.recorder.eventsOf(c.text, entriesOf(c.list))); });
    table[at + "getAllEventStats"] = plain(ACT {
        const auto events = m.recorder.events();
        expectSum(c, "count", distinct(events, nameOf), static_cast<double>(events.size()));
    });
    table[at + "getAllEventStatsByContext"] = plain(ACT {
        const auto events = m.recorder.events();
        expectSum(c, "count", distinct(events, groupOf), static_cast<double>(events.size()));
    });
    table[at + "getEventStats"] = plain(
        ACT { expectCount(c, static_cast<std::int64_t>(m.recorder.eventsOf(c.text, {}).size())); });
    table[at + "getEventStatsForContext"] = withPairs(ACT {
        const auto events = m.recorder.eventsOf(c.text, entriesOf(c.list));
        if (c.result)
            expect(rowsIn(*c.result) == 1, "one record");
        if (c.result && c.list.empty())
            expectCount(c, static_cast<std::int64_t>(events.size()));
    });
}

inline void addCounter(std::map<std::string, Effect>& table) {
    const std::string at = "instrument.counter.";
    table[at + "isActive"] = plain(ACT { expectLogical(c, m.counter.active); });
    table[at + "start"] = plain(ACT_ON_MODEL { m.counter.active = true; });
    table[at + "stop"] = plain(ACT_ON_MODEL { m.counter.active = false; });
    table[at + "resetAllEventCounts"] = plain(ACT_ON_MODEL { m.counter.counts.clear(); });
    table[at + "resetEventCount"] = plain(ACT { m.counter.reset(c.text); });
    table[at + "getEventCount"] = plain(ACT { expectCount(c, m.counter.of(c.text)); });
    table[at + "getAllEventCountsByContext"] = plain(ACT {
        double sum = 0;
        for (const auto& [key, count] : m.counter.counts)
            sum += static_cast<double>(count);
        expectSum(c, "count", m.counter.counts.size(), sum);
    });
    table[at + "getEventCountForContext"] = withPairs(ACT {
        if (c.list.empty())
            expectCount(c, m.counter.of(c.text));
    });
}

inline void addTasks(std::map<std::string, Effect>& table) {
    const std::string at = "cooperativeTaskManager.";
    table[at + "getNumPendingTasks"] = plain(ACT {
        if (c.result)
            expect(c.result->asInteger() == static_cast<std::int64_t>(m.tasks.pending.size()),
                   "pending tasks");
    });
    table[at + "pause"] = plain(ACT_ON_MODEL { ++m.tasks.depth; });
    table[at + "resume"] = plain(ACT_ON_MODEL { --m.tasks.depth; });
    table[at + "pausePPE"] = plain(ACT_ON_MODEL { ++m.tasks.ppeDepth; });
    table[at + "resumePPE"] = plain(ACT_ON_MODEL { --m.tasks.ppeDepth; });
    table[at + "isPaused"] = plain(ACT { expectLogical(c, m.tasks.depth > 0); });
    table[at + "isProcessing"] = plain(ACT {
        static_cast<void>(m);
        expectLogical(c, false);
    });
    table[at + "finishAllTasks"] = plain(ACT_ON_MODEL { m.tasks.pending.clear(); });
    table[at + "removeAllTasks"] = plain(ACT_ON_MODEL { m.tasks.pending.clear(); });
    table[at + "finishTaskByName"] = plain(ACT { std::erase(m.tasks.pending, c.text); });
    table[at + "process"] = [](MethodsModel& model, const Call& call) {
        return process(model, call,
                       static_cast<std::size_t>(manager::instance()->getNumPendingTasks(true)));
    };
    table[at + "setLoggingEnabled"] = plain(ACT { m.tasks.logging = c.words[0] != 0; });
    table[at + "getLoggingEnabled"] = plain(ACT { expectLogical(c, m.tasks.logging); });
    table["utils.queueLoadLibrary"] = plain(ACT { m.tasks.pending.push_back("load " + c.text); });
    table["utils.queueSleepTask"] = plain(ACT_ON_MODEL { m.tasks.pending.push_back("sleep"); });
    table["utils.queueDummyTaskIfNonParSessions"] = plain(ACT {
        m.tasks.pending.push_back("dummy");
        expectLogical(c, true);
    });
}

inline void addOthers(std::map<std::string, Effect>& table) {
    table["instrument.areAnyListenersActive"] = plain(ACT { expectLogical(c, m.anyListener()); });
    table["instrument.testAPI_addSomethingToInstrumentation"] = addSomething;
    table["instrument.instruments.startEvent"] = startEvent;
    table["instrument.instruments.stopEvent"] = stopEvent;
    table["instrument.profiler.isActive"] = plain(ACT { expectLogical(c, m.profiler.active); });
    table["instrument.profiler.start"] = plain(ACT_ON_MODEL { m.profiler.start(m.controls); });
    table["instrument.profiler.stop"] = stopProfiler;
    table["instrument.profiler.stopAndPrint"] = stopProfiler;
    table["instrument.logger.isActive"] = plain(ACT { expectLogical(c, m.logger.active); });
    table["instrument.logger.start"] = plain(ACT_ON_MODEL { m.logger.start(m.controls); });
    table["instrument.logger.stop"] = plain(ACT_ON_MODEL { m.logger.stop(m.controls); });
}

#undef ACT
#undef ACT_ON_MODEL

inline std::map<std::string, Effect>& effects() {
    static std::map<std::string, Effect> table = [] {
        std::map<std::string, Effect> made;
        addControls(made);
        addRecorder(made);
        addCounter(made);
        addTasks(made);
        addOthers(made);
        return made;
    }();
    return table;
}

}  // namespace fuzzing
