// Replays events with given times into a recorder and writes what the recorder makes of them.
//
//   replay_events FOLDER MINIMUM_NANOSECONDS <SCRIPT
//
// A line of the script is one of, fields separated by a tab, names and texts in hexadecimal:
//
//   source  PROCESS THREAD
//   start   SOURCE SERIAL TIME NAME [KEY VALUE]...
//   stop    SOURCE SERIAL TIME NAME [KEY VALUE]...
//   instant SOURCE SERIAL TIME NAME [KEY VALUE]...
//
// Sources count from 1 in the order of their lines. FOLDER gets monotonic.json, utc.json,
// filtered.json, stacks.txt, and events.txt with a line "SOURCE SERIAL START STOP" for each event.

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "zandor/instrument/context.hpp"
#include "zandor/instrument/controls.hpp"
#include "zandor/instrument/exports.hpp"
#include "zandor/instrument/listeners.hpp"
#include "zandor/instrument/recorder.hpp"
#include "zandor/instrument/source.hpp"

namespace {

using Fields = std::vector<std::string>;

Fields split(const std::string& line) {
    Fields fields;
    for (std::size_t begin = 0; begin <= line.size();) {
        const std::size_t end = std::min(line.find('\t', begin), line.size());
        fields.push_back(line.substr(begin, end - begin));
        begin = end + 1;
    }
    return fields;
}

std::string text(const std::string& hexadecimal) {
    std::string bytes;
    for (std::size_t i = 0; i + 1 < hexadecimal.size(); i += 2) {
        bytes.push_back(static_cast<char>(std::stoi(hexadecimal.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

class Replay {
  public:
    void play(const Fields& fields) {
        if (fields.at(0) == "source") {
            addSource(fields);
            return;
        }
        const instrument::EventId id{sources_.at(std::stoul(fields.at(1)) - 1),
                                     std::stoull(fields.at(2))};
        const std::int64_t time = std::stoll(fields.at(3));
        const instrument::Opaque* handle = instrument::controls.getHandle(text(fields.at(4)));
        if (fields[0] == "start") {
            instrument::listeners.onEventStartAt(handle, context(fields), id, time);
        } else if (fields[0] == "stop") {
            instrument::listeners.onEventStopAt(handle, context(fields), id, time);
        } else if (fields[0] == "instant") {
            instrument::listeners.onEventInstantAt(handle, context(fields), id, time);
        } else {
            throw std::invalid_argument("unknown line " + fields[0]);
        }
    }

    /// The script's number of a source that the library numbered.
    std::size_t number(std::uint64_t source) const { return numbers_.at(source); }

  private:
    void addSource(const Fields& fields) {
        const std::size_t number = sources_.size() + 1;
        sources_.push_back(instrument::addExternalSource(text(fields.at(1)), text(fields.at(2)),
                                                         4711, 4711 + number));
        numbers_[sources_.back()] = number;
    }

    static instrument::ContextSet context(const Fields& fields) {
        instrument::ContextSet set;
        for (std::size_t i = 5; i + 1 < fields.size(); i += 2) {
            // The handle's name stays for the life of the process, as an entry's name has to.
            const char* name = instrument::controls.getHandle(text(fields[i]))->name;
            set.insert(instrument::ContextEntry{name, text(fields[i + 1])});
        }
        return set;
    }

    std::vector<std::uint64_t> sources_;
    std::map<std::uint64_t, std::size_t> numbers_;
};

void write(const instrument::InstrumentRecorder& recorder, const Replay& replay,
           std::chrono::nanoseconds minimum, const std::filesystem::path& folder) {
    using instrument::saveTraceEventJson;
    using instrument::TimeSystem;
    const std::chrono::nanoseconds all{-1};
    saveTraceEventJson(recorder, TimeSystem::monotonic, all, folder / "monotonic.json");
    saveTraceEventJson(recorder, TimeSystem::utc, all, folder / "utc.json");
    saveTraceEventJson(recorder, TimeSystem::monotonic, minimum, folder / "filtered.json");
    saveCollapsedStacks(recorder, folder / "stacks.txt");
    std::ofstream events(folder / "events.txt");
    for (const auto& event : recorder.getAllEvents()) {
        events << replay.number(event.id.sourceId) << ' ' << event.id.serialId << ' '
               << event.startTimePoint << ' ' << event.stopTimePoint << '\n';
    }
}

}  // namespace

int main(int argc, char** argv) try {
    if (argc != 3) {
        throw std::invalid_argument("usage: replay_events FOLDER MINIMUM_NANOSECONDS <SCRIPT");
    }
    instrument::InstrumentRecorder recorder;
    instrument::listeners.add(recorder);
    Replay replay;
    for (std::string line; std::getline(std::cin, line);) {
        replay.play(split(line));
    }
    instrument::listeners.remove(recorder);
    write(recorder, replay, std::chrono::nanoseconds{std::stoll(argv[2])}, argv[1]);
    return 0;
} catch (const std::exception& error) {
    std::cerr << "replay_events: " << error.what() << '\n';
    return 2;
}
