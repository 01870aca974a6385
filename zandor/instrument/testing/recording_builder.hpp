// Recordings made by hand, for tests of what reads them.
#pragma once

#include <algorithm>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "zandor/instrument/recording.hpp"

namespace instrument::test_support {

class RecordingBuilder {
  public:
    static constexpr std::int64_t origin = 81'000'000'000;
    static constexpr std::int64_t originUtc = 1'700'000'000'000'000'123;

    RecordingBuilder() {
        recording_.originMonotonic = origin;
        recording_.originUtc = originUtc;
        recording_.lastTime = origin;
        recording_.processId = 4711;
    }

    /// A thread, of another process where one is named. Gives its index.
    std::uint32_t source(const std::string& name, std::optional<std::string> process = {}) {
        const auto index = static_cast<std::uint32_t>(recording_.sources.size());
        const std::uint64_t processId = process ? 4712 : 4711;
        std::optional<std::string_view> processName;
        if (process)
            processName = keep(*process);
        recording_.sources.push_back(
            {index + 10u, keep(name), processName, processId, index + 5000u});
        return index;
    }

    /// An event; open without a stop. Times in nanoseconds from the origin.
    RecordingBuilder& event(const std::string& name, std::uint32_t source, std::int64_t start,
                            std::optional<std::int64_t> stop,
                            std::vector<ContextArg> context = {}) {
        detail::RecordedEvent event;
        event.start = origin + start;
        event.stop = origin + stop.value_or(start);
        event.serial = ++serial_;
        event.instrument = instrument(name);
        event.source = event.stopSource = source;
        event.context = keep(context);
        event.finished = stop.has_value();
        recording_.lastTime = std::max({recording_.lastTime, event.start, event.stop});
        recording_.events.push_back(event);
        return *this;
    }

    /// Says where an instrument stands.
    RecordingBuilder& place(const std::string& name, const std::string& place) {
        made(name).place = texts_.emplace_back(place).c_str();
        return *this;
    }

    /// Lets the event made last stop on another thread.
    RecordingBuilder& stoppedBy(std::uint32_t source) {
        recording_.events.back().stopSource = source;
        return *this;
    }

    RecordingBuilder& point(const std::string& name, std::uint32_t source, std::int64_t time,
                            std::vector<ContextArg> context = {},
                            EventPointType type = EventPointType::instant) {
        recording_.strayPoints.push_back(
            {origin + time, ++serial_, instrument(name), source, keep(context), type});
        recording_.lastTime = std::max(recording_.lastTime, origin + time);
        return *this;
    }

    detail::Recording& recording() { return recording_; }

    /// In the order that recordings have.
    const detail::Recording& build() {
        std::sort(recording_.events.begin(), recording_.events.end(), [](auto& a, auto& b) {
            return std::tie(a.start, a.source, a.serial) < std::tie(b.start, b.source, b.serial);
        });
        std::stable_sort(recording_.strayPoints.begin(), recording_.strayPoints.end(),
                         [](auto& a, auto& b) {
                             return std::tie(a.time, a.source) < std::tie(b.time, b.source);
                         });
        return recording_;
    }

  private:
    std::string_view keep(const std::string& text) { return texts_.emplace_back(text); }

    ContextArgs keep(const std::vector<ContextArg>& context) {
        std::ranges::copy(context, recording_.contextArgs.room(context.size()).begin());
        return recording_.contextArgs.keep(context.size());
    }

    const Opaque* instrument(const std::string& name) { return &made(name); }

    Opaque& made(const std::string& name) {
        auto& known = instruments_[name];
        if (!known) {
            Opaque& made = opaques_.emplace_back();
            made.name = texts_.emplace_back(name).c_str();
            made.id = static_cast<std::uint32_t>(opaques_.size() - 1);
            made.nameLength = static_cast<std::uint32_t>(name.size());
            known = &made;
        }
        return *known;
    }

    detail::Recording recording_;
    std::deque<std::string> texts_;
    std::deque<Opaque> opaques_;
    std::map<std::string, Opaque*> instruments_;
    std::uint64_t serial_ = 0;
};

}  // namespace instrument::test_support
