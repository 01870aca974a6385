// Shows that the model of the methods is able to find a fault: run as PROGRAM --check-model, each
// row of its table is made wrong in turn, and runs of noise have to say so.
//
// The fault lies in the table, not in the product: what finds a model that is wrong about a method
// finds a method that is wrong about the model.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include "fuzz/method_table.hpp"
#include "fuzz/seeds.hpp"

namespace fuzzing {

struct WrongRow {
    std::string name;
    std::string fault;
    Effect effect;
};

/// As if nothing had ever happened: what the method changes is forgotten, what it tells is compared
/// with a model that is empty.
inline Effect onEmptyModel(const Effect& right) {
    return [right](MethodsModel&, const Call& call) {
        MethodsModel empty;
        return right(empty, call);
    };
}

inline std::vector<WrongRow> wrongRows() {
    // They tell the same whatever happened before, or noise asks them for what there is too seldom.
    const std::set<std::string> untold{
        "cooperativeTaskManager.isProcessing",         "instrument.controls.isEnabledWithContext",
        "instrument.counter.getEventCountForContext",  "instrument.recorder.getEventStats",
        "instrument.recorder.getEventStatsForContext", "instrument.recorder.getEventsForContext"};
    std::vector<WrongRow> rows;
    for (const auto& [name, effect] : effects()) {
        if (!untold.contains(name))
            rows.push_back({name, "nothing happened", onEmptyModel(effect)});
        rows.push_back({name, "the opposite is refused",
                        [right = effect](MethodsModel& model, const Call& call) {
                            return !right(model, call);
                        }});
    }
    const std::string controls = "instrument.controls.";
    rows.push_back({controls + "disable", "it enables", [](MethodsModel& model, const Call& call) {
                        if (!hasNul(call.text))
                            model.controls.setSwitch(call.text, true);
                        return hasNul(call.text);
                    }});
    rows.push_back(
        {controls + "disableAll", "it enables all", [](MethodsModel& model, const Call&) {
             model.controls.enableAll(true);
             return false;
         }});
    rows.push_back({"instrument.instruments.stopEvent", "it is a start", startEvent});
    return rows;
}

/// What a child said whose table has this row and which ran that many inputs of noise.
inline std::string saidWith(const WrongRow& row, std::size_t inputs,
                            int (*run)(const std::uint8_t*, std::size_t)) {
    std::array<int, 2> ends{};
    if (pipe(ends.data()) != 0)
        std::abort();
    const pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], STDERR_FILENO);
        if (!row.name.empty())
            effects()[row.name] = row.effect;
        Noise noise;
        for (std::size_t i = 0; i < inputs; ++i) {
            const std::string bytes = noise.next(1500);
            run(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
        }
        _exit(0);
    }
    close(ends[1]);
    std::string said;
    std::array<char, 4096> some{};
    for (ssize_t size; (size = read(ends[0], some.data(), some.size())) > 0;)
        said.append(some.data(), static_cast<std::size_t>(size));
    close(ends[0]);
    waitpid(child, nullptr, 0);
    return said;
}

/// Gives the exit status: whether the model as it is says nothing, and each wrong one something.
inline int checkByWrongRows(int (*run)(const std::uint8_t*, std::size_t)) {
    constexpr std::size_t inputs = 2000;
    int status = EXIT_SUCCESS;
    if (const std::string said = saidWith({}, inputs / 10, run); !said.empty()) {
        std::printf("the right model: %s\n", said.c_str());
        status = EXIT_FAILURE;
    }
    const std::vector<WrongRow> rows = wrongRows();
    std::size_t found = 0;
    for (const WrongRow& row : rows) {
        if (saidWith(row, inputs, run).find("the model says otherwise") != std::string::npos) {
            ++found;
            continue;
        }
        std::printf("not found: %s, as if %s\n", row.name.c_str(), row.fault.c_str());
        status = EXIT_FAILURE;
    }
    std::printf("the model finds %zu of %zu wrong rows\n", found, rows.size());
    return status;
}

}  // namespace fuzzing
