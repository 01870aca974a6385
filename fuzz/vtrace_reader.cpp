// Reads trace files of any bytes and writes every export of what they give.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <span>
#include <stdexcept>
#include <string>

#include "fuzz/seeds.hpp"
#include "zandor/instrument/controls.hpp"
#include "zandor/instrument/instrument.hpp"
#include "zandor/instrument/listeners.hpp"
#include "zandor/instrument/recorder.hpp"
#include "zandor/instrument/trace_checksum.hpp"
#include "zandor/instrument/trace_file.hpp"
#include "zandor/instrument/trace_view.hpp"

namespace {

/// Has the checksums of what the fuzzer made up fit, so that it gets behind them.
void fitChecksums(std::string& content) {
    using namespace instrument::detail;
    TraceBlockHead head;
    for (std::size_t offset = sizeof(TraceFileHead); offset + sizeof head <= content.size();) {
        std::memcpy(static_cast<void*>(&head), &content[offset], sizeof head);
        const std::size_t payload = offset + sizeof head;
        if (head.magic != TraceBlockHead::expectedMagic || head.bytes > content.size() - payload)
            return;
        TraceChecksum checksum(head);
        checksum.add(std::as_bytes(std::span(content)).subspan(payload, head.bytes));
        head.checksum = checksum.value();
        std::memcpy(&content[offset], &head, sizeof head);
        offset = payload + (head.bytes + 7) / 8 * 8;
    }
}

void writeAll(int file, const std::string& content) {
    const auto size = static_cast<ssize_t>(content.size());
    if (ftruncate(file, 0) != 0 || pwrite(file, content.data(), content.size(), 0) != size)
        throw std::runtime_error("no room for the input");
}

void readEverything(const std::filesystem::path& file) {
    instrument::TraceFile trace(file);
    trace.saveTraceEventJson("/dev/null");
    trace.saveCollapsedStacks("/dev/null");
    trace.saveSpeedscope("/dev/null");
    trace.summarize();
    trace.threadNames();
    trace.select({.since = 10, .until = 1'000'000, .minimumDuration = 5, .mostPerThread = 2});
    trace.saveTraceEventJson("/dev/null");
    trace.reportData();
}

void viewEverything(const std::filesystem::path& file) {
    instrument::TraceView view(file);
    view.activity();
    view.read();
    view.state();
    view.threads();
    for (const std::int64_t end : {std::int64_t{1'000}, std::int64_t{1} << 40, INT64_MAX}) {
        view.window(0, end, 100, 0, 0xffffffff);
        view.flame(0, end);
    }
    view.find("", {.start = -1}, true);
    view.find("e", {.start = INT64_MAX}, false);
    view.details({});
}

}  // namespace

void fuzzing::writeSeeds(const std::filesystem::path& folder) {
    instrument::controls.enableAll(true);
    instrument::InstrumentRecorder recorder;
    instrument::listeners.add(recorder);
    const instrument::Instrument outer("outer"), inner("inner");
    instrument::saveTraceFile(recorder, folder / "empty.vtrace");
    for (int i = 0; i < 20; ++i) {
        const instrument::Scope scope{outer, {{"i", i}, {"text", "t"}, {"real", 0.5}}};
        const instrument::Scope nested{inner};
        inner.instant({{"on", true}});
    }
    instrument::listeners.onEventStartAt(outer.handle(), {}, {1'000, 1}, 5);
    instrument::listeners.onEventStopAt(outer.handle(), {}, {1'000, 1}, 50);
    instrument::saveTraceFile(recorder, folder / "events.vtrace");
    instrument::combineTraceFiles({folder / "events.vtrace", folder / "events.vtrace"},
                                  folder / "two.vtrace");
    instrument::listeners.remove(recorder);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const int memory = memfd_create("trace", MFD_CLOEXEC);
    static const std::string path = "/proc/self/fd/" + std::to_string(memory);
    std::string content(reinterpret_cast<const char*>(data), size);
    if (size % 2 == 0)
        fitChecksums(content);
    writeAll(memory, content);
    try {
        readEverything(path);
        viewEverything(path);
    } catch (const std::runtime_error&) {
        // no trace file
    }
    return 0;
}
