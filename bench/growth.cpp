// How costs grow with the number of events, each in a process of its own.
//
//   growth recording|statistics|json|json-file|plain-file|trace-file|rare-name EVENTS
//   growth struct-arrays RECORDS
//
// Prints {"each": nanoseconds of CPU time, "bytes": memory} for one event or record. A query for a
// rare name tells nanoseconds for each event of the recording.
#include <sys/mman.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "bench/temporary_folder.hpp"
#include "zandor/instrument/controls.hpp"
#include "zandor/instrument/exports.hpp"
#include "zandor/instrument/instrument.hpp"
#include "zandor/instrument/recorder.hpp"
#include "zandor/instrument/recorder_snapshot.hpp"
#include "zandor/instrument/trace_file.hpp"
#include "zandor/runtime/array.hpp"

namespace {

using instrument::InstrumentRecorder;
using instrument::Scope;

struct Cost {
    double each;
    double bytes;
};

double processorNanoseconds() {
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

double timed(const std::function<void()>& work) {
    const double begin = processorNanoseconds();
    work();
    return processorNanoseconds() - begin;
}

constexpr std::size_t names = 1000;
constexpr std::size_t depth = 50;

/// Calls of all names that nest. One of two hundred events is of the rare name, in one stretch: of
/// many chunks one in a hundred has it.
class Program {
  public:
    explicit Program(std::size_t events) : events_(events) {
        for (std::size_t i = 0; i < names; ++i)
            instruments_.emplace_back("growth." + std::to_string(i));
    }

    void run() const {
        for (std::size_t made = 0; made < events_; made += depth)
            descend(made, depth, made >= events_ / 2 && made < events_ / 2 + events_ / 200);
    }

  private:
    void descend(std::size_t first, std::size_t levels, bool isRare) const {
        if (levels == 0)
            return;
        const Scope scope{isRare ? rare_ : instruments_[(first + levels) % names]};
        descend(first, levels - 1, isRare);
    }

    std::size_t events_;
    instrument::Instrument rare_{"growth.rare"};
    std::vector<instrument::Instrument> instruments_;
};

/// A virtual machine gets memory from its host when it is first touched, which is no cost of ours.
void haveHostGiveMemory(std::size_t bytes) {
    void* const pages =
        mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED)
        return;
    madvise(pages, bytes, MADV_HUGEPAGE);
    std::memset(pages, 1, bytes);
    munmap(pages, bytes);
}

class Recording {
  public:
    explicit Recording(std::size_t events) {
        const Program program(events);
        haveHostGiveMemory(events * 64);
        instrument::listeners.add(recorder);
        instrument::controls.enableAll(true);
        time = timed([&] { program.run(); });
        instrument::controls.enableAll(false);
        instrument::listeners.remove(recorder);
        if (recorder.drops().total() != 0)
            throw std::runtime_error("events were dropped");
    }

    InstrumentRecorder recorder{{.maxBytes = std::size_t{16} << 30}};
    double time = 0;
};

Cost costOf(double time, double bytes, std::size_t count) {
    return {time / static_cast<double>(count), bytes / static_cast<double>(count)};
}

Cost recording(std::size_t events) {
    const Recording recorded(events);
    return costOf(recorded.time, static_cast<double>(recorded.recorder.bytesInUse()), events);
}

Cost statistics(std::size_t events) {
    const Recording recorded(events);
    const double time = timed([&] { recorded.recorder.getAllEventStats(); });
    return costOf(time, 0, events);
}

/// Of a query after the first, which looks what chunks have. In place of the bytes, how many in a
/// hundred of those recorded are read.
Cost rareName(std::size_t events) {
    const Recording recorded(events);
    const auto query = [&] {
        if (recorded.recorder.getEventStats("growth.rare").count == 0)
            throw std::runtime_error("the rare name is missing");
    };
    const auto bytesReadBy = [](const std::function<void()>& work) {
        const std::uint64_t before = instrument::detail::bytesOfRecordsRead;
        work();
        return static_cast<double>(instrument::detail::bytesOfRecordsRead - before);
    };
    const double all = bytesReadBy([&] { recorded.recorder.getAllEventStats(); });
    query();
    double time = 0;
    const double read = bytesReadBy([&] { time = timed(query); });
    return {time / static_cast<double>(events), 100 * read / all};
}

/// The bytes are those of the text.
class CountedText : public instrument::TextSink {
  public:
    void write(std::string_view text) override { bytes += text.size(); }
    std::size_t bytes = 0;
};

Cost json(std::size_t events) {
    const Recording recorded(events);
    CountedText text;
    const double time = timed([&] {
        writeTraceEventJson(recorded.recorder, instrument::TimeSystem::monotonic,
                            std::chrono::nanoseconds(-1), text);
    });
    return costOf(time, static_cast<double>(text.bytes), events);
}

/// The bytes are those of the file. It lies in memory, for a disk that has to write gigabytes back
/// slows down.
template <class Save>
Cost saved(std::size_t events, Save save) {
    const auto folder = bench::TemporaryFolder::inMemory();
    const std::string file = folder.file("saved");
    const double time = timed([&] { save(file); });
    return costOf(time, static_cast<double>(std::filesystem::file_size(file)), events);
}

Cost jsonFile(std::size_t events) {
    const Recording recorded(events);
    return saved(events, [&](const std::string& file) {
        saveTraceEventJson(recorded.recorder, instrument::TimeSystem::monotonic,
                           std::chrono::nanoseconds(-1), file);
    });
}

/// As many bytes as an event of the program takes in JSON, without anything being made of them.
Cost plainFile(std::size_t events) {
    constexpr std::size_t piece = std::size_t{256} << 10, bytesOfEvent = 90;
    const std::string text(piece, ' ');
    return saved(events, [&](const std::string& name) {
        std::ofstream file(name, std::ios::binary);
        file.rdbuf()->pubsetbuf(nullptr, 0);
        for (std::size_t left = events * bytesOfEvent; left > 0;) {
            const std::size_t part = std::min(left, piece);
            file.write(text.data(), static_cast<std::streamsize>(part));
            left -= part;
        }
        if (!file.flush())
            throw std::runtime_error("the file cannot be written");
    });
}

Cost traceFile(std::size_t events) {
    const Recording recorded(events);
    return saved(events, [&](const std::string& file) { saveTraceFile(recorded.recorder, file); });
}

/// Of the whole process, in bytes.
double residentMemory() {
    std::ifstream file("/proc/self/statm");
    double total = 0, resident = 0;
    file >> total >> resident;
    return resident * 4096;
}

Cost structArrays(std::size_t records) {
    namespace hx = matrix::hx;
    constexpr const char* fields[] = {"name",     "context",  "startTime", "duration",
                                      "sourceId", "serialId", "sourceName"};
    const double before = residentMemory();
    matrix::Array array;
    const double time = timed([&] {
        array = matrix::detail::do_create_struct(1, records, fields);
        for (std::size_t record = 0; record < records; ++record) {
            for (std::size_t field = 0; field < std::size(fields); ++field) {
                const bool isText = field < 2 || field == 6;
                matrix::Array value =
                    isText ? matrix::create("solve", 5)
                           : matrix::Array(hx::hxCreateDoubleScalar(static_cast<double>(record)));
                hx::hxSetField(array.get(), record, hx::hxGetFieldName(array.get(), field),
                               matrix::to_zandor(std::move(value)));
            }
        }
    });
    return costOf(time, residentMemory() - before, records);
}

const std::map<std::string, Cost (*)(std::size_t)> subjects = {
    {"recording", recording},  {"statistics", statistics},
    {"rare-name", rareName},   {"json", json},
    {"json-file", jsonFile},   {"plain-file", plainFile},
    {"trace-file", traceFile}, {"struct-arrays", structArrays},
};

}  // namespace

int main(int count, char** arguments) {
    const auto subject = count == 3 ? subjects.find(arguments[1]) : subjects.end();
    if (subject == subjects.end()) {
        std::fputs("usage: growth SUBJECT EVENTS\n", stderr);
        return 2;
    }
    const Cost cost = subject->second(std::strtoull(arguments[2], nullptr, 10));
    std::printf("{\"each\": %.3f, \"bytes\": %.2f}\n", cost.each, cost.bytes);
    return 0;
}
