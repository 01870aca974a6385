// What the published methods are expected to do, in the plainest words: no threads, no time.
#pragma once

#include <algorithm>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "zandor/instrument/event_id.hpp"

namespace fuzzing {

using Context = std::map<std::string, std::string>;

/// What a query asks for: events that hold each of them.
using Entries = std::vector<std::pair<std::string, std::string>>;

inline Entries entriesOf(const std::vector<std::string>& pairs) {
    Entries entries;
    for (std::size_t i = 0; i + 1 < pairs.size(); i += 2)
        entries.emplace_back(pairs[i], pairs[i + 1]);
    return entries;
}

inline bool holdsAll(const Context& context, const Entries& entries) {
    return std::ranges::all_of(entries, [&](const auto& entry) {
        const auto at = context.find(entry.first);
        return at != context.end() && at->second == entry.second;
    });
}

/// The first entry of a name stays.
inline Context contextOf(const std::vector<std::string>& pairs) {
    Context context;
    for (std::size_t i = 0; i + 1 < pairs.size(); i += 2)
        context.emplace(pairs[i], pairs[i + 1]);
    return context;
}

/// Switches and rules of all names.
class ControlsModel {
  public:
    bool allEnabled = false;
    std::set<std::string> registered;  // for the life of the process

    bool isOn(const std::string& name, const Context& context = {}) const {
        const Said* said = saidOf(allEnabled ? since_ : own_, name);
        if (said) {
            std::optional<bool> verdict;
            for (const auto& [entry, on] : said->rules)
                if (holdsAll(context, {entry}))
                    verdict = verdict.value_or(true) && on;
            if (verdict)
                return *verdict;
        }
        return said && said->plain ? *said->plain : allEnabled;
    }
    void setSwitch(const std::string& name, bool on) {
        own_[name].plain = on;
        if (allEnabled)
            since_[name].plain = on;
    }
    void setRule(const std::string& name, const std::vector<std::string>& entry, bool on) {
        own_[name].rules[{entry[0], entry[1]}] = on;
        if (allEnabled)
            since_[name].rules[{entry[0], entry[1]}] = on;
    }
    void enableAll(bool on) {
        allEnabled = on;
        since_.clear();
    }
    void disableAll() {
        enableAll(false);
        own_.clear();
    }

  private:
    struct Said {
        std::optional<bool> plain;
        std::map<std::pair<std::string, std::string>, bool> rules;
    };
    using ByName = std::map<std::string, Said>;

    static const Said* saidOf(const ByName& all, const std::string& name) {
        const auto at = all.find(name);
        return at == all.end() ? nullptr : &at->second;
    }

    ByName own_;
    ByName since_;
};

/// A service whose methods "start" and "stop" save and give back the flag.
struct ListeningModel {
    bool active = false;
    bool saved = false;

    void start(ControlsModel& controls) {
        active = true;
        saved = controls.allEnabled;
        controls.enableAll(true);
    }
    void stop(ControlsModel& controls) {
        controls.enableAll(std::exchange(saved, false));
        active = false;
    }
};

using Id = std::pair<std::uint64_t, std::uint64_t>;

struct PointModel {
    std::string name;
    Context context;
    std::string type;
    Id id;
};

class RecorderModel : public ListeningModel {
  public:
    std::vector<PointModel> points;

    std::vector<PointModel> pointsOf(const std::string& name, const Entries& entries) const {
        return those(points, name, entries);
    }
    /// Starts that have a stop behind them.
    std::vector<PointModel> events() const {
        std::vector<PointModel> events;
        for (std::size_t i = 0; i < points.size(); ++i)
            for (std::size_t j = i + 1; points[i].type == "start" && j < points.size(); ++j)
                if (points[j].type == "stop" && points[j].id == points[i].id) {
                    events.push_back(points[i]);
                    break;
                }
        return events;
    }
    std::vector<PointModel> eventsOf(const std::string& name, const Entries& entries) const {
        return those(events(), name, entries);
    }

  private:
    static std::vector<PointModel> those(const std::vector<PointModel>& all,
                                         const std::string& name, const Entries& entries) {
        std::vector<PointModel> found;
        for (const PointModel& point : all)
            if (point.name == name && holdsAll(point.context, entries))
                found.push_back(point);
        return found;
    }
};

struct CounterModel {
    bool active = false;
    std::map<std::pair<std::string, Context>, std::int64_t> counts;

    std::int64_t of(const std::string& name, const Entries& entries = {}) const {
        std::int64_t sum = 0;
        for (const auto& [key, count] : counts)
            if (key.first == name && holdsAll(key.second, entries))
                sum += count;
        return sum;
    }
    void reset(const std::string& name) {
        std::erase_if(counts, [&](const auto& entry) { return entry.first.first == name; });
    }
};

struct ProfilerModel : ListeningModel {
    std::map<Id, std::string> open;
    std::map<std::string, std::uint64_t> calls;

    void clear() {
        open.clear();
        calls.clear();
    }
};

struct TasksModel {
    std::deque<std::string> pending;
    std::int32_t depth = 0;
    std::int32_t ppeDepth = 0;
    bool logging = false;
};

/// All of it.
struct MethodsModel {
    ControlsModel controls;
    RecorderModel recorder;
    ProfilerModel profiler;
    ListeningModel logger;
    CounterModel counter;
    TasksModel tasks;

    /// Of an event whose id nobody is told.
    Id unknownId() { return {~std::uint64_t{0}, ++unknownIds_}; }

    bool anyListener() const {
        return recorder.active || profiler.active || logger.active || counter.active;
    }

    void deliver(const PointModel& point) {
        if (recorder.active)
            recorder.points.push_back(point);
        if (counter.active && point.type != "stop")
            ++counter.counts[{point.name, point.context}];
        if (!profiler.active)
            return;
        if (point.type == "start")
            profiler.open[point.id] = point.name;
        if (const auto at = profiler.open.find(point.id);
            point.type == "stop" && at != profiler.open.end()) {
            ++profiler.calls[at->second];
            profiler.open.erase(at);
        }
    }

  private:
    std::uint64_t unknownIds_ = 0;
};

}  // namespace fuzzing
