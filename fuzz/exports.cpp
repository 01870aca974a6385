// Records events of any names and contexts, nested as calls are, and writes every export: each has
// to parse and to agree with what was recorded.
#include <fuzzer/FuzzedDataProvider.h>
#include <zlib.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "fuzz/seeds.hpp"
#include "zandor/instrument/controls.hpp"
#include "zandor/instrument/exports.hpp"
#include "zandor/instrument/instrument.hpp"
#include "zandor/instrument/listeners.hpp"
#include "zandor/instrument/recorder.hpp"
#include "zandor/instrument/testing/json_reader.hpp"
#include "zandor/instrument/trace_file.hpp"
#include "zandor/runtime/text.hpp"

namespace {

namespace fs = std::filesystem;
using instrument::test_support::Json;
using instrument::test_support::JsonReader;

void expect(bool holds, const char* what) {
    if (holds)
        return;
    std::fprintf(stderr, "not so: %s\n", what);
    std::abort();
}

struct Recorded {
    std::size_t starts = 0;
    std::size_t finished = 0;
    std::size_t instants = 0;
};

/// Few and odd, or any bytes without a NUL.
std::string anyName(FuzzedDataProvider& input) {
    static constexpr const char* odd[] = {
        "solve",        "",          "a;b",        "\"\\", "\n\r\t", "\xe2\x80\xa8", "\xff",
        "\xed\xa0\x80", "</script>", "unfinished", "src",  "i",      "  ",           "\x1b[31m"};
    if (input.ConsumeIntegralInRange(0, 3) != 0)
        return input.PickValueInArray(odd);
    std::string name = input.ConsumeRandomLengthString(6);
    std::erase(name, '\0');
    return name;
}

/// One event and those in it, until the input says otherwise.
class Producer {
  public:
    Producer(FuzzedDataProvider& input, Recorded& recorded) : input_(input), recorded_(recorded) {}

    void produce(int depth) {
        while (input_.remaining_bytes() > 0 && recorded_.starts + recorded_.instants < 60)
            switch (input_.ConsumeIntegralInRange(0, 4)) {
                case 0:
                    instrument::Instrument(anyName(input_)).instant();
                    ++recorded_.instants;
                    break;
                case 1:
                    if (depth > 0)
                        return;
                    break;
                default:
                    event(depth + 1);
            }
    }

  private:
    void event(int depth) {
        const instrument::Instrument instrument(anyName(input_));
        const std::string key = anyName(input_), text = anyName(input_);
        ++recorded_.starts;
        const instrument::OpenEvent open =
            input_.ConsumeBool()
                ? instrument.start()
                : instrument.start({{key, text},
                                    {"i", input_.ConsumeIntegral<std::int64_t>()},
                                    {"real", input_.ConsumeFloatingPoint<double>()}});
        if (depth < 20)
            produce(depth);
        // One is left open now and then, with all around it.
        if (input_.ConsumeIntegralInRange(0, 31) == 31)
            stopsAreOver_ = true;
        if (stopsAreOver_)
            return;
        instrument.stop(open);
        ++recorded_.finished;
    }

    FuzzedDataProvider& input_;
    Recorded& recorded_;
    bool stopsAreOver_ = false;
};

std::string contentOf(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

std::string unpacked(const fs::path& file) {
    const gzFile packed = gzopen(file.c_str(), "rb");
    std::string text(std::size_t{1} << 20, '\0');
    const int size = gzread(packed, text.data(), static_cast<unsigned>(text.size()));
    expect(size >= 0 && gzclose(packed) == Z_OK, "the compressed file is whole");
    text.resize(static_cast<std::size_t>(size));
    return text;
}

Json parsed(const std::string& text) {
    expect(fl::i18n::sanitize_utf8(text) == text, "an export is UTF-8");
    try {
        return JsonReader::read(text);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        std::fwrite(text.data(), 1, std::min<std::size_t>(text.size(), 4000), stderr);
        std::abort();
    }
}

void checkTrace(const std::string& text, const Recorded& recorded) {
    const Json trace = parsed(text);
    std::map<std::string, std::size_t> kinds;
    std::size_t unfinished = 0;
    for (const Json& event : trace["traceEvents"].elements) {
        ++kinds[event["ph"].text];
        const Json* args = event.find("args");
        unfinished +=
            args && args->has("unfinished") && (*args)["unfinished"].kind == Json::Kind::logical;
        if (event["ph"].text == "X")
            expect(event["dur"].nanoseconds() > 0 && event["ts"].nanoseconds() > 0, "times");
    }
    // One that begins at the last time of all, and is never stopped, is an instant.
    const std::size_t left = recorded.starts - recorded.finished;
    const std::size_t events = kinds["X"] + kinds["b"];
    expect(events <= recorded.starts && events + left >= recorded.starts, "the number of events");
    expect(events + kinds["i"] == recorded.starts + recorded.instants, "the number of instants");
    expect(kinds["b"] == kinds["e"], "pairs are whole");
    expect(unfinished == left, "events that are not finished");
}

void checkStacks(const std::vector<std::string>& lines, const Recorded& recorded) {
    expect(std::ranges::is_sorted(lines), "stacks are sorted");
    expect(lines.empty() == (recorded.starts == 0), "there are stacks where there are events");
    for (const std::string& line : lines) {
        expect(fl::i18n::sanitize_utf8(line) == line, "a stack is UTF-8");
        const std::size_t space = line.rfind(' ');
        expect(space != line.npos && std::strtoll(&line[space], nullptr, 10) >= 1, "a self time");
        const std::string stack = line.substr(0, space);
        expect(stack.find_first_of("\n\r\t") == stack.npos, "a stack is one line");
        expect(stack.find(";;") == stack.npos && stack.front() != ';' && stack.back() != ';',
               "no frame is empty");
    }
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = text.find('\n', at);
        expect(end != text.npos, "the last line ends");
        lines.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    return lines;
}

void checkSpeedscope(const std::string& text, const Recorded& recorded) {
    const Json file = parsed(text);
    const std::size_t frames = file["shared"]["frames"].elements.size();
    std::size_t opened = 0, closed = 0;
    for (const Json& profile : file["profiles"].elements)
        for (const Json& event : profile["events"].elements) {
            (event["type"].text == "O" ? opened : closed) += 1;
            expect(event["frame"].number() < static_cast<double>(frames), "a frame that is there");
        }
    expect(opened == closed, "frames are closed");
    expect(opened <= recorded.starts, "no more frames than events");
}

const fs::path& folder() {
    static const fs::path made = [] {
        std::string name = fs::temp_directory_path() / "fuzz-XXXXXX";
        if (!mkdtemp(name.data()))
            std::abort();
        return fs::path(name);
    }();
    return made;
}

void check(const instrument::InstrumentRecorder& recorder, const Recorded& recorded) {
    using instrument::TimeSystem;
    constexpr std::chrono::nanoseconds all(-1);
    expect(recorder.getAllEvents().size() == recorded.finished, "the recorder's events");
    checkTrace(instrument::getAllCompleteEventsTraceEventJson(recorder, TimeSystem::monotonic, all),
               recorded);
    parsed(instrument::getAllCompleteEventsTraceEventJson(recorder, TimeSystem::utc, all));
    const std::vector<std::string> stacks = instrument::getAllEventsCollapsedStacks(recorder);
    checkStacks(stacks, recorded);

    instrument::saveTraceFile(recorder, folder() / "a.vtrace");
    instrument::TraceFile trace(folder() / "a.vtrace");
    trace.saveTraceEventJson(folder() / "a.json");
    trace.saveTraceEventJson(folder() / "a.json.gz");
    trace.saveCollapsedStacks(folder() / "a.txt");
    trace.saveSpeedscope(folder() / "s.json");
    checkTrace(contentOf(folder() / "a.json"), recorded);
    expect(unpacked(folder() / "a.json.gz") == contentOf(folder() / "a.json"), "compression");
    expect(linesOf(contentOf(folder() / "a.txt")) == stacks, "stacks of the file");
    checkSpeedscope(contentOf(folder() / "s.json"), recorded);
    parsed(trace.reportData());
}

}  // namespace

void fuzzing::writeSeeds(const fs::path& folder) {
    writeNoise(folder, 6, 400);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    instrument::controls.enableAll(true);
    instrument::InstrumentRecorder recorder({.maxBytes = 1 << 24});
    instrument::listeners.add(recorder);
    Recorded recorded;
    FuzzedDataProvider input(data, size);
    Producer(input, recorded).produce(0);
    instrument::listeners.remove(recorder);
    check(recorder, recorded);
    return 0;
}
