// A recording as trace-event JSON, beside a writer by hand that does no more than the text needs.
#include <fcntl.h>
#include <unistd.h>

#include <charconv>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "bench/temporary_folder.hpp"
#include "measuring.hpp"
#include "zandor/instrument/exports.hpp"

namespace {

using bench::Listening;
using instrument::InstrumentRecorder;
using instrument::TimeSystem;

constexpr int events = 500'000;
constexpr std::chrono::nanoseconds everything{-1};

InstrumentRecorder& recording() {
    static InstrumentRecorder recorder;
    static const bool isMade = [] {
        const Listening listening({&recorder});
        for (std::size_t i = 0; i < events / bench::depth; ++i)
            bench::descend<instrument::Scope>(i * 25, bench::depth);
        return recorder.drops().total() == 0;
    }();
    if (!isMade)
        throw std::runtime_error("events were dropped");
    return recorder;
}

/// Keeps its memory.
class Text : public instrument::TextSink {
  public:
    void write(std::string_view text) override { all.append(text); }
    std::string all;
};

/// An event as a prototype of a recorder has it.
struct Complete {
    std::uint64_t start;
    std::uint32_t duration;
    std::uint32_t name;
};

std::vector<Complete> completeEvents() {
    std::vector<Complete> all;
    for (std::uint32_t i = 0; i < events; ++i)
        all.push_back({i * std::uint64_t{137}, i * 31 % 100'000, i % 1000});
    return all;
}

char* put(char* at, std::string_view text) {
    std::memcpy(at, text.data(), text.size());
    return at + text.size();
}

/// Microseconds with three decimals.
char* putTime(char* at, std::uint64_t nanoseconds) {
    at = std::to_chars(at, at + 20, nanoseconds / 1000).ptr;
    const auto rest = static_cast<unsigned>(nanoseconds % 1000);
    *at++ = '.';
    *at++ = static_cast<char>('0' + rest / 100);
    *at++ = static_cast<char>('0' + rest / 10 % 10);
    *at++ = static_cast<char>('0' + rest % 10);
    return at;
}

/// Names are escaped once.
std::vector<std::string> beginnings() {
    std::vector<std::string> all;
    for (const instrument::Instrument& name : bench::thousandNames())
        all.push_back("{\"name\":\"" + std::string(name.name()) +
                      "\",\"cat\":\"event\",\"ph\":\"X\",\"ts\":");
    return all;
}

/// Hands the text to `flush` when that much has come together.
template <class Flush>
void writeByHand(const std::vector<Complete>& all, const std::vector<std::string>& names,
                 std::vector<char>& buffer, Flush flush) {
    constexpr std::ptrdiff_t mostOfOne = 256;
    char* at = buffer.data();
    const char* const full = buffer.data() + buffer.size() - mostOfOne;
    for (const Complete& event : all) {
        at = putTime(put(at, names[event.name]), event.start);
        at = putTime(put(at, ",\"dur\":"), event.duration);
        at = put(at, ",\"pid\":1,\"tid\":1},\n");
        if (at > full) {
            flush(std::string_view(buffer.data(), at));
            at = buffer.data();
        }
    }
    flush(std::string_view(buffer.data(), at));
}

void floorJsonToMemory(benchmark::State& state) {
    const auto all = completeEvents();
    const auto names = beginnings();
    std::vector<char> buffer(std::size_t{events} * 160);
    while (state.KeepRunningBatch(events))
        writeByHand(all, names, buffer,
                    [](std::string_view text) { benchmark::DoNotOptimize(text.data()); });
}
BENCHMARK(floorJsonToMemory);

void jsonToMemory(benchmark::State& state) {
    const InstrumentRecorder& recorder = recording();
    Text text;
    writeTraceEventJson(recorder, TimeSystem::monotonic, everything, text);
    while (state.KeepRunningBatch(events)) {
        text.all.clear();
        writeTraceEventJson(recorder, TimeSystem::monotonic, everything, text);
    }
}
BENCHMARK(jsonToMemory)->MeasureProcessCPUTime();

void floorJsonToFile(benchmark::State& state) {
    const auto all = completeEvents();
    const auto names = beginnings();
    const bench::TemporaryFolder folder;
    std::vector<char> buffer(std::size_t{256} << 10);
    while (state.KeepRunningBatch(events)) {
        const int file =
            open(folder.file("floor.json").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        writeByHand(all, names, buffer, [&](std::string_view text) {
            if (write(file, text.data(), text.size()) < 0)
                state.SkipWithError("the disk is full");
        });
        close(file);
    }
}
BENCHMARK(floorJsonToFile);

/// Of /proc/self/status, in kilobytes.
double statusOf(std::string_view key) {
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;)
        if (word == key) {
            double number = 0;
            status >> number;
            return number;
        }
    throw std::runtime_error("the system does not tell its memory");
}

void forgetPeak() {
    std::ofstream("/proc/self/clear_refs") << "5";
}

void jsonToFile(benchmark::State& state) {
    const InstrumentRecorder& recorder = recording();
    const bench::TemporaryFolder folder;
    forgetPeak();
    const double before = statusOf("VmRSS:");
    while (state.KeepRunningBatch(events))
        saveTraceEventJson(recorder, TimeSystem::monotonic, everything, folder.file("a.json"));
    state.counters["megabytes"] = (statusOf("VmHWM:") - before) / 1024;
}
BENCHMARK(jsonToFile)->MeasureProcessCPUTime();

}  // namespace
