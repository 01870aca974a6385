// The rules of traces, checked as a viewer reads them: times parsed to doubles and added.
#pragma once

#include <cmath>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "zandor/instrument/testing/json_reader.hpp"

namespace instrument::test_support {

/// Gathers what is wrong with a trace, a sentence a violation.
class TraceRules {
  public:
    static std::vector<std::string> violations(const Json& document, std::int64_t step = 1) {
        TraceRules rules(document["traceEvents"].elements, step);
        rules.checkDocument(document);
        rules.checkTracks();
        rules.checkTimes();
        rules.checkOrder();
        rules.checkNesting();
        rules.checkPairs("b", "e");
        rules.checkPairs("s", "f");
        return rules.violations_;
    }

  private:
    struct Open {
        double end;
        const Json* event;
    };

    TraceRules(const std::vector<Json>& events, std::int64_t step) : events_(events), step_(step) {}

    void breach(const std::string& rule, const Json& event) {
        std::string told = rule + ":";
        for (const auto& [name, value] : event.members)
            told += " " + name + "=" + value.text;
        violations_.push_back(told);
    }

    static bool isPhase(const Json& event, std::string_view phase) {
        return event["ph"].text == phase;
    }

    void checkDocument(const Json& document) {
        if (document["displayTimeUnit"].text != "ns")
            breach("displayTimeUnit", document);
        for (const auto& [name, value] : document["metadata"].members)
            if (value.kind != Json::Kind::text)
                breach("metadata " + name + " is no text", document);
    }

    void checkTracks() {
        std::set<int> processes, threads;
        std::map<int, int> processOf;
        bool onlyMetadata = true;
        for (const Json& event : events_) {
            onlyMetadata &= isPhase(event, "M");
            if (isPhase(event, "M") && !onlyMetadata)
                breach("metadata event after others", event);
            const int pid = std::stoi(event["pid"].text), tid = std::stoi(event["tid"].text);
            processes.insert(pid);
            threads.insert(tid);
            if (processOf.try_emplace(tid, pid).first->second != pid)
                breach("thread in two processes", event);
            if (event["name"].text.empty() || (!isPhase(event, "M") && event["cat"].text.empty()))
                breach("no name or cat", event);
        }
        if (!isDense(processes) || !isDense(threads))
            violations_.push_back("pids or tids are not dense from 1");
    }

    static bool isDense(const std::set<int>& ids) {
        return ids.empty() || (*ids.begin() == 1 && *ids.rbegin() == static_cast<int>(ids.size()));
    }

    void checkTimes() {
        for (const Json& event : events_) {
            if (isPhase(event, "M"))
                continue;
            if (step_ == 1 && event["ts"].nanoseconds() < 1000)
                breach("ts below 1", event);
            if (event["ts"].nanoseconds() % step_ != 0)
                breach("ts beside the grid", event);
            if (!isPhase(event, "X"))
                continue;
            if (event["dur"].nanoseconds() <= 0 || event["dur"].nanoseconds() % step_ != 0)
                breach("dur", event);
        }
    }

    void checkOrder() {
        const Json* before = nullptr;
        for (const Json& event : events_) {
            if (!isPhase(event, "X"))
                continue;
            if (before && before->operator[]("ts").nanoseconds() > event["ts"].nanoseconds())
                breach("starts earlier than the one before", event);
            if (before && before->operator[]("ts").text == event["ts"].text &&
                before->operator[]("dur").nanoseconds() < event["dur"].nanoseconds())
                breach("starts with a shorter one before", event);
            before = &event;
        }
    }

    /// Viewers add the times as they are, or count from the first event of the thread on.
    void checkNesting() {
        std::map<std::string, std::vector<const Json*>> threads;
        for (const Json& event : events_)
            if (isPhase(event, "X"))
                threads[event["tid"].text].push_back(&event);
        for (const auto& [tid, complete] : threads) {
            checkNesting(complete, 0);
            checkNesting(complete, (*complete.front())["ts"].number());
        }
    }

    void checkNesting(const std::vector<const Json*>& complete, double origin) {
        std::vector<Open> open;
        for (const Json* event : complete) {
            const double start = (*event)["ts"].number() - origin;
            const double end = start + (*event)["dur"].number();
            if (end <= start)
                breach("lasts no time", *event);
            while (!open.empty() && open.back().end <= start) {
                if (open.back().end == start)
                    breach("starts on the end of another", *event);
                open.pop_back();
            }
            if (!open.empty() && end >= open.back().end)
                breach("does not end inside its parent", *event);
            open.push_back({end, event});
        }
    }

    void checkPairs(std::string_view first, std::string_view last) {
        std::map<std::string, const Json*> open;
        std::set<std::string> used;
        for (const Json& event : events_) {
            if (!isPhase(event, first) && !isPhase(event, last))
                continue;
            const std::string key = event["cat"].text + event["name"].text + event["id"].text;
            if (!event["id"].text.starts_with("0x"))
                breach("id", event);
            if (isPhase(event, first)) {
                if (!used.insert(event["cat"].text + event["id"].text).second)
                    breach("id used twice", event);
                open[key] = &event;
            } else if (open.contains(key)) {
                checkPair(*open[key], event, first);
                open.erase(key);
            } else {
                breach("end without begin", event);
            }
        }
        for (const auto& [key, event] : open)
            breach("begin without end", *event);
    }

    void checkPair(const Json& begin, const Json& end, std::string_view first) {
        if (end["ts"].nanoseconds() < begin["ts"].nanoseconds())
            breach("ends before it begins", end);
        const std::string ends = begin["ts"].text + " " + begin["tid"].text + " " + end["ts"].text +
                                 " " + end["tid"].text;
        const bool changes = begin["tid"].text != end["tid"].text;
        if (first == "b" && changes)
            handedOver_.insert(ends);
        if (first != "s")
            return;
        const auto pair = handedOver_.find(ends);
        if (pair == handedOver_.end() || end["bp"].text != "e")
            breach("flow without a pair between threads", begin);
        else
            handedOver_.erase(pair);
    }

    const std::vector<Json>& events_;
    const std::int64_t step_;
    std::multiset<std::string> handedOver_;
    std::vector<std::string> violations_;
};

}  // namespace instrument::test_support
