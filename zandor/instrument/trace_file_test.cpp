// Trace files: what goes in comes out, and whatever a file holds is read without harm.
#include <gmock/gmock.h>
#include <zlib.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include "testing/recorder_support.hpp"
#include "testing/temporary_folder.hpp"
#include "trace_format.hpp"
#include "zandor/instrument/exports.hpp"
#include "zandor/instrument/source.hpp"
#include "zandor/instrument/trace_file.hpp"
#include "zandor/runtime/sanitizers.hpp"

namespace instrument {
namespace {

namespace fs = std::filesystem;
using test_support::Listening;
using test_support::onThreads;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;

std::string contentOf(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

void writeTo(const fs::path& file, std::string_view content) {
    std::ofstream(file, std::ios::binary) << content;
}

class TraceFileTest : public test_support::RecorderTest {
  protected:
    /// Events of every kind, on several threads.
    void emitEverything() {
        onThreads(3, [this](int index) {
            setThreadName("worker " + std::to_string(index));
            for (int i = 0; i < 1000; ++i) {
                const Scope outer{outer_, {{"index", i}, {"kind", "text"}, {"share", 0.5}}};
                const Scope inner{inner_};
                if (i % 10 == 0)
                    instant_.instant({{"on", true}});
            }
        });
        const auto open = outer_.start();
        std::thread([&] { outer_.stop(open); }).join();
        (void)inner_.start({{"left", "open"}});
        const std::uint64_t external = addExternalSource("other program", "its thread", 77, 78);
        listeners.onEventStartAt(outer_.handle(), {}, {external, 1}, 1'000'000);
        listeners.onEventStopAt(outer_.handle(), {}, {external, 1}, 2'000'000);
        listeners.onEventStopAt(outer_.handle(), {}, {external, 9}, 3'000'000);
        removeExternalSource(external);
    }
    fs::path savedTrace() {
        emitEverything();
        saveTraceFile(recorder_, folder_ / "a.vtrace");
        return folder_ / "a.vtrace";
    }
    std::string jsonOf(const TraceFile& trace) {
        trace.saveTraceEventJson(folder_ / "of_trace.json");
        return contentOf(folder_ / "of_trace.json");
    }
    std::string jsonOfRecorder() {
        return getAllCompleteEventsTraceEventJson(recorder_, TimeSystem::monotonic,
                                                  std::chrono::nanoseconds(-1));
    }

    const Instrument outer_{"outer"};
    const Instrument inner_{"inner \xe2\x82\xac"};
    const Instrument instant_{"instant"};
    const test_support::TemporaryFolder folder_;
    InstrumentRecorder recorder_;
    const Listening listening_{recorder_};
};

/// But for how the processes are called, which only a trace of others must tell.
TEST_F(TraceFileTest, GivesTheExportsThatTheRecorderGives) {
    const TraceFile trace(savedTrace());
    EXPECT_TRUE(trace.isComplete());
    EXPECT_EQ(trace.damagedBlocks(), 0u);
    EXPECT_EQ(trace.processCount(), 1u);
    EXPECT_EQ(jsonOf(trace), jsonOfRecorder());
    trace.saveCollapsedStacks(folder_ / "a.folded");
    std::string stacks;
    for (const std::string& line : getAllEventsCollapsedStacks(recorder_))
        stacks += line + "\n";
    EXPECT_EQ(contentOf(folder_ / "a.folded"), stacks);
    EXPECT_EQ(trace.summarize().size(), summarize(recorder_).size());
    EXPECT_THAT(trace.threadNames(),
                testing::IsSupersetOf({"worker 0", "worker 1", "worker 2", "its thread"}));
}

/// The stop of another thread may come first in time though it stands last in the file.
TEST_F(TraceFileTest, TakesOfStopsOfSeveralThreadsTheFirst) {
    std::uint64_t sources[2];
    for (std::uint64_t& source : sources)
        source = addExternalSource("other program", "its thread", 77, 78);
    listeners.onEventStartAt(outer_.handle(), {}, {sources[0], 1}, 1000);
    const auto stop = [&](std::size_t by, std::int64_t time) {
        listeners.onEventStartAt(inner_.handle(), {}, {sources[by], 5}, 1000);
        listeners.onEventStopAt(outer_.handle(), {}, {sources[0], 1}, time);
        listeners.onEventStopAt(inner_.handle(), {}, {sources[by], 5}, 6000);
    };
    stop(0, 5000);
    stop(1, 4000);
    saveTraceFile(recorder_, folder_ / "a.vtrace");
    EXPECT_EQ(jsonOf(TraceFile(folder_ / "a.vtrace")), jsonOfRecorder());
    for (const std::uint64_t source : sources)
        removeExternalSource(source);
}

TEST_F(TraceFileTest, TellsWhatWasDropped) {
    InstrumentRecorder small({.maxBytes = 128 * 1024});
    const Listening listening(small);
    const auto open = outer_.start();
    while (small.drops().refused < 1000)
        inner_.stop(inner_.start());
    outer_.stop(open);
    saveTraceFile(small, folder_ / "small.vtrace");
    const TraceFile trace(folder_ / "small.vtrace");
    EXPECT_EQ(trace.drops().refused, small.drops().refused);
    EXPECT_EQ(jsonOf(trace), getAllCompleteEventsTraceEventJson(small, TimeSystem::monotonic,
                                                                std::chrono::nanoseconds(-1)));
}

TEST_F(TraceFileTest, IsReadAsFarAsItGoesWithoutItsEnd) {
    const fs::path file = savedTrace();
    const std::string whole = jsonOf(TraceFile(file));
    fs::resize_file(file, fs::file_size(file) - 1);
    const TraceFile withoutTail(file);
    EXPECT_FALSE(withoutTail.isComplete());
    EXPECT_EQ(jsonOf(withoutTail), whole);
    fs::resize_file(file, fs::file_size(file) / 2);
    EXPECT_LT(TraceFile(file).eventCount(), 6000u);
}

TEST_F(TraceFileTest, LeavesOutADamagedBlockAlone) {
    const fs::path file = savedTrace();
    const std::uint64_t all = TraceFile(file).eventCount();
    std::string content = contentOf(file);
    content[content.size() - 20'000] ^= 1;  // in a block of records
    writeTo(file, content);
    const TraceFile trace(file);
    EXPECT_EQ(trace.damagedBlocks(), 1u);
    EXPECT_LT(trace.eventCount(), all);
    EXPECT_GT(trace.eventCount(), 0u);
}

TEST_F(TraceFileTest, SurvivesWhateverAFileHolds) {
    const std::string good = contentOf(savedTrace());
    const fs::path file = folder_ / "bad.vtrace";
    std::mt19937 random(1);
    for (int round = 0; round < (ZANDOR_SANITIZED ? 60 : 300); ++round) {
        std::string bad = good;
        for (int change = 0; change < 5; ++change)
            bad[random() % bad.size()] = static_cast<char>(random());
        bad.resize(random() % (bad.size() + 1));
        writeTo(file, bad);
        try {
            jsonOf(TraceFile(file));
        } catch (const std::runtime_error& error) {
            EXPECT_THAT(error.what(), HasSubstr("no trace file"));
        }
    }
}

TEST_F(TraceFileTest, SaysWhatIsNoTrace) {
    writeTo(folder_ / "text", "not a trace at all");
    EXPECT_THROW(TraceFile(folder_ / "text"), std::runtime_error);
    EXPECT_THROW(TraceFile(folder_ / "missing"), std::system_error);
}

TEST_F(TraceFileTest, IsCompressedWhereItsNameSaysSo) {
    const TraceFile trace(savedTrace());
    trace.saveTraceEventJson(folder_ / "a.json.gz");
    gzFile stream = gzopen((folder_ / "a.json.gz").c_str(), "rb");
    std::string text;
    for (char piece[4096]; const int got = gzread(stream, piece, sizeof piece);) {
        ASSERT_GT(got, 0);
        text.append(piece, static_cast<std::size_t>(got));
    }
    gzclose(stream);
    EXPECT_EQ(text, jsonOf(trace));
    EXPECT_LT(fs::file_size(folder_ / "a.json.gz"), text.size() / 4);
}

TEST_F(TraceFileTest, LeavesOutWhatIsNotSelected) {
    const fs::path file = savedTrace();
    TraceFile plain(file);
    plain.select({.contexts = false});
    EXPECT_THAT(jsonOf(plain), Not(HasSubstr("\"kind\"")));
    TraceFile capped(file);
    capped.select({.minimumDuration = 0, .mostPerThread = 10});
    EXPECT_LE(capped.eventCount(), 60u);
    EXPECT_GT(capped.eventCount(), 30u);
    TraceFile early(file);
    early.select({.until = -1});
    EXPECT_EQ(early.eventCount(), 2u);  // whose times were given
    TraceFile late(file);
    late.select({.since = 0, .until = INT64_MAX});
    EXPECT_EQ(late.eventCount(), TraceFile(file).eventCount() - 2);
}

TEST_F(TraceFileTest, IsSplitBySize) {
    const TraceFile trace(savedTrace());
    const auto files = trace.saveTraceEventJson(folder_ / "part.json", 100'000);
    ASSERT_GT(files.size(), 5u);
    EXPECT_EQ(files[0], folder_ / "part.json");
    EXPECT_EQ(files[1], folder_ / "part-2.json");
    std::size_t inParts = 0;
    for (const fs::path& file : files) {
        EXPECT_LE(fs::file_size(file), 100'000u);
        const std::string text = contentOf(file);
        for (std::size_t at = 0; (at = text.find("\"name\":\"outer\"", at)) != text.npos; ++at)
            ++inParts;
    }
    EXPECT_GE(inParts, 3000u);
}

TEST_F(TraceFileTest, BecomesNestedProfilesOfThreads) {
    const TraceFile trace(savedTrace());
    trace.saveSpeedscope(folder_ / "a.speedscope.json");
    const std::string text = contentOf(folder_ / "a.speedscope.json");
    const auto count = [&](std::string_view what) {
        std::size_t found = 0;
        for (std::size_t at = 0; (at = text.find(what, at)) != text.npos; ++at)
            ++found;
        return found;
    };
    EXPECT_GE(count("\"type\":\"O\""), 6000u);
    EXPECT_EQ(count("\"type\":\"O\""), count("\"type\":\"C\""));
    EXPECT_GE(count("\"type\":\"evented\""), 4u);
    EXPECT_EQ(count("{\"name\":\"outer\"}"), 1u);
}

/// A row "| record | field | offset |" for every field that the document's reader needs.
TEST(TraceFileLayout, IsThatOfTheDocument) {
    using namespace detail;
    const std::string document = contentOf(VANTRACE_SOURCE_DIR "/docs/vtrace.md");
    const auto expectRow = [&](std::string_view record, std::string_view field,
                               std::size_t offset) {
        EXPECT_THAT(
            document,
            HasSubstr(
                std::string("| ").append(record).append(" | ").append(field).append(" | ").append(
                    std::to_string(offset)) +
                " |"));
    };
    expectRow("file head", "magic", offsetof(TraceFileHead, magic));
    expectRow("file head", "version", offsetof(TraceFileHead, version));
    expectRow("file head", "end", sizeof(TraceFileHead));
    expectRow("block head", "magic", offsetof(TraceBlockHead, magic));
    expectRow("block head", "kind", offsetof(TraceBlockHead, kind));
    expectRow("block head", "process", offsetof(TraceBlockHead, process));
    expectRow("block head", "checksum", offsetof(TraceBlockHead, checksum));
    expectRow("block head", "bytes", offsetof(TraceBlockHead, bytes));
    expectRow("block head", "end", sizeof(TraceBlockHead));
    expectRow("process", "process id", offsetof(TraceProcess, processId));
    expectRow("process", "ticks are TSC", offsetof(TraceProcess, ticksAreTsc));
    expectRow("process", "origin ticks", offsetof(TraceProcess, originTicks));
    expectRow("process", "origin nanoseconds", offsetof(TraceProcess, originNanoseconds));
    expectRow("process", "utc offset", offsetof(TraceProcess, utcOffset));
    expectRow("process", "refused", offsetof(TraceProcess, refused));
    expectRow("process", "minimum duration", offsetof(TraceProcess, minimumDuration));
    expectRow("process", "name", offsetof(TraceProcess, name));
    expectRow("process", "boot id", offsetof(TraceProcess, bootId));
    expectRow("process", "end", sizeof(TraceProcess));
    expectRow("stretch", "track", offsetof(TraceStretch, track));
    expectRow("stretch", "source", offsetof(TraceStretch, source));
    expectRow("stretch", "next serial", offsetof(TraceStretch, nextSerial));
    expectRow("outline row", "source", offsetof(OutlineRow, source));
    expectRow("outline row", "timed", offsetof(OutlineRow, timed));
    expectRow("outline row", "is instants", offsetof(OutlineRow, isInstants));
    expectRow("outline row", "place", offsetof(OutlineRow, place));
    expectRow("outline row", "slices", offsetof(OutlineRow, slices));
    expectRow("outline row", "end", sizeof(OutlineRow));
    expectRow("outline slice", "begin", offsetof(OutlineSlice, begin));
    expectRow("outline slice", "serial", offsetof(OutlineSlice, serial));
    expectRow("outline slice", "busy", offsetof(OutlineSlice, busy));
    expectRow("outline slice", "name", offsetof(OutlineSlice, name));
    expectRow("outline slice", "events", offsetof(OutlineSlice, events));
    expectRow("outline slice", "marks", offsetof(OutlineSlice, marks));
    expectRow("outline slice", "end", sizeof(OutlineSlice));
    expectRow("index entry", "offset", offsetof(TraceIndexEntry, offset));
    expectRow("index entry", "bytes", offsetof(TraceIndexEntry, bytes));
    expectRow("index entry", "kind", offsetof(TraceIndexEntry, kind));
    expectRow("index entry", "process", offsetof(TraceIndexEntry, process));
    expectRow("file tail", "index", offsetof(TraceFileTail, index));
    expectRow("file tail", "magic", offsetof(TraceFileTail, magic));
    EXPECT_THAT(document, HasSubstr("version " + std::to_string(TraceFileHead::currentVersion)));
}

TEST_F(TraceFileTest, JoinsOthers) {
    const fs::path file = savedTrace();
    combineTraceFiles({file, file}, folder_ / "both.vtrace");
    const TraceFile both(folder_ / "both.vtrace");
    EXPECT_EQ(both.processCount(), 2u);
    EXPECT_EQ(both.eventCount(), 2 * TraceFile(file).eventCount());
    EXPECT_TRUE(both.isComplete());
}

}  // namespace
}  // namespace instrument
