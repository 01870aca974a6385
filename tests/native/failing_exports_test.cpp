// Every export and file of a recording, with each of its requests for memory refused in turn, and
// with the disk full at each of its writes: the file is whole or as it was, nothing else is left in
// its folder, and the next call works.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <system_error>
#include <vector>

#include "tests/native/failing_files.hpp"
#include "tests/native/failing_memory.hpp"
#include "zandor/instrument/controls.hpp"
#include "zandor/instrument/exports.hpp"
#include "zandor/instrument/instrument.hpp"
#include "zandor/instrument/listeners.hpp"
#include "zandor/instrument/recorded_events.hpp"
#include "zandor/instrument/recorder.hpp"
#include "zandor/instrument/trace_file.hpp"

namespace {

namespace fs = std::filesystem;
using instrument::InstrumentRecorder;
using instrument::TraceFile;

class TemporaryFolder {
  public:
    TemporaryFolder() {
        std::string name = fs::temp_directory_path() / "exports-XXXXXX";
        if (!mkdtemp(name.data()))
            throw std::runtime_error("no temporary folder");
        path_ = name;
    }
    ~TemporaryFolder() { fs::remove_all(path_); }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    const fs::path& path() const { return path_; }

  private:
    fs::path path_;
};

std::string contentOf(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

using Files = std::map<std::string, std::string>;

Files filesIn(const fs::path& folder) {
    Files files;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder))
        files[entry.path().filename()] = contentOf(entry.path());
    return files;
}

/// Calls and counts of a kind each, in a recorder and in a trace file of the same.
class Recorded {
  public:
    Recorded() {
        instrument::controls.enableAll(true);
        InstrumentRecorder inFolder({.folder = runs.path()});
        instrument::listeners.add(recorder);
        instrument::listeners.add(inFolder);
        const instrument::Instrument outer("outer"), inner("in;ner \"quoted\"");
        for (int i = 0; i < 80; ++i) {
            const instrument::Scope scope{outer, {{"i", i}, {"text", "t"}, {"real", 0.5}}};
            const instrument::Scope nested{inner};
            inner.instant({{"on", true}});
        }
        left = outer.start();  // never stopped
        instrument::listeners.remove(recorder);
        instrument::listeners.remove(inFolder);
        instrument::saveTraceFile(recorder, trace);
        instrument::finishRunFolder(runs.path(), trace);
        instrument::controls.disableAll();
    }

    TemporaryFolder runs;
    TemporaryFolder traces;
    const fs::path trace = traces.path() / "a.vtrace";
    InstrumentRecorder recorder;
    instrument::OpenEvent left;
};

const Recorded& recorded() {
    static const Recorded made;
    return made;
}

struct Case {
    const char* name;
    const char* file;
    std::function<void(const fs::path&)> run;
};

class Collected : public instrument::RecordedItemSink {
  public:
    void take(const instrument::RecordedItem& item) override { names.push_back(item.name); }
    std::vector<std::string_view> names;
};

void writeText(const fs::path& file, const std::string& text) {
    std::ofstream(file) << text;
}

const std::vector<Case>& cases() {
    using instrument::TimeSystem;
    constexpr std::chrono::nanoseconds all(-1);
    static const std::vector<Case> table{
        {"Json", "a.json",
         [=](const fs::path& file) {
             instrument::saveTraceEventJson(recorded().recorder, TimeSystem::monotonic, all, file);
         }},
        {"JsonUtc", "a.json",
         [=](const fs::path& file) {
             instrument::saveTraceEventJson(recorded().recorder, TimeSystem::utc, all, file);
         }},
        {"Stacks", "a.txt",
         [](const fs::path& file) { instrument::saveCollapsedStacks(recorded().recorder, file); }},
        {"TraceFile", "b.vtrace",
         [](const fs::path& file) { instrument::saveTraceFile(recorded().recorder, file); }},
        {"RunFolder", "b.vtrace",
         [](const fs::path& file) { instrument::finishRunFolder(recorded().runs.path(), file); }},
        {"Combined", "b.vtrace",
         [](const fs::path& file) {
             instrument::combineTraceFiles({recorded().trace, recorded().trace}, file);
         }},
        {"TraceJson", "a.json",
         [](const fs::path& file) { TraceFile(recorded().trace).saveTraceEventJson(file); }},
        {"TraceJsonCompressed", "a.json.gz",
         [](const fs::path& file) { TraceFile(recorded().trace).saveTraceEventJson(file); }},
        {"TraceJsonParts", "a.json",
         [](const fs::path& file) { TraceFile(recorded().trace).saveTraceEventJson(file, 9'000); }},
        {"TraceStacks", "a.txt",
         [](const fs::path& file) { TraceFile(recorded().trace).saveCollapsedStacks(file); }},
        {"TraceSpeedscope", "a.json",
         [](const fs::path& file) { TraceFile(recorded().trace).saveSpeedscope(file); }},
    };
    return table;
}

/// What is read without writing; the text is written to see whether it is whole.
const std::vector<Case>& readings() {
    static const std::vector<Case> table{
        {"Report", "", [](const fs::path&) { TraceFile(recorded().trace).reportData(); }},
        {"StacksOfTrace", "", [](const fs::path&) { TraceFile(recorded().trace).stacks(); }},
        {"SummaryOfTrace", "",
         [](const fs::path&) {
             TraceFile trace(recorded().trace);
             trace.select({.since = 10, .minimumDuration = 1, .mostPerThread = 5});
             trace.summarize();
             trace.threadNames();
         }},
        {"Summary", "",
         [](const fs::path&) {
             instrument::summarize(recorded().recorder);
             instrument::threadNames(recorded().recorder);
         }},
        {"Items", "",
         [](const fs::path&) {
             Collected items;
             instrument::readRecording(recorded().recorder, items);
             if (items.names.size() != 241)
                 throw std::runtime_error("items are missing");
         }},
    };
    return table;
}

/// What the files say. Trace files also tell of the time when they were written, and count time by
/// what was known of the clock then: of them, what is made from them, but for times.
Files saidIn(const fs::path& folder) {
    Files said = filesIn(folder);
    if (said.contains("b.vtrace") && said["b.vtrace"] != "old") {
        const TraceFile trace(folder / "b.vtrace");
        said["b.vtrace"] = std::to_string(trace.isComplete()) + " complete, " +
                           std::to_string(trace.damagedBlocks()) + " damaged, " +
                           std::to_string(trace.eventCount()) + " events, " +
                           (trace.duration() > 0 ? "some time" : "no time");
    }
    return said;
}

std::string resultOf(const Case& tried, const fs::path& file) {
    try {
        tried.run(file);
    } catch (const std::system_error& error) {
        if (error.code() == std::errc::not_enough_memory)
            return "no memory";
        return error.code().message();
    } catch (const std::bad_alloc&) {
        return "no memory";
    }
    return "good";
}

class FailingExports : public testing::TestWithParam<Case> {
  protected:
    void SetUp() override {
        recorded();
        GetParam().run(target());  // also what is made once in a process
        good_ = saidIn(folder_.path());
        fs::remove_all(folder_.path());
        fs::create_directory(folder_.path());
        if (*GetParam().file)
            writeText(target(), "old");
        old_ = filesIn(folder_.path());
    }

    fs::path target() const { return folder_.path() / GetParam().file; }

    /// Whole or as it was, and as it was again.
    void expectWhole(const std::string& result, const std::string& error) {
        const Files files = saidIn(folder_.path());
        if (result != "good") {
            EXPECT_EQ(result, error);
            EXPECT_TRUE(files == old_ || isInParts(files)) << testing::PrintToString(files);
        } else if (*GetParam().file) {
            EXPECT_EQ(files, good_);
        }
        for (const auto& [name, content] : files)
            fs::remove(folder_.path() / name);
        if (*GetParam().file)
            writeText(target(), "old");
    }

    /// Whether the names of some parts were given already: each file is whole.
    bool isInParts(const Files& files) const {
        return good_.size() > 1 && std::ranges::all_of(files, [this](const auto& file) {
                   return good_.contains(file.first) && good_.at(file.first) == file.second;
               });
    }

    void expectToWork() { expectWhole(resultOf(GetParam(), target()), "none"); }

    /// The disk as planned, for every operation of the export.
    void failEach(failing_files::Plan plan, const std::string& error) {
        for (plan.first = 1; !HasFailure(); ++plan.first) {
            SCOPED_TRACE("operation " + std::to_string(plan.first));
            std::string result;
            bool came = false;
            {
                const failing_files::Failure failure(plan);
                result = resultOf(GetParam(), target());
                came = failure.came();
            }
            expectWhole(result, error);
            if (!came) {
                EXPECT_EQ(result, "good");
                return;
            }
        }
    }

    TemporaryFolder folder_;
    Files good_;
    Files old_;
};

TEST_P(FailingExports, AreWholeOrNotThereWithoutMemory) {
    for (const bool onlyThatOne : {true, false})
        for (std::uint64_t first = 1; !HasFailure(); ++first) {
            SCOPED_TRACE("request " + std::to_string(first) + (onlyThatOne ? " alone" : " on"));
            const fs::path file = target();
            std::string result;
            bool came = false;
            {
                const failing_memory::Failure failure({first, onlyThatOne});
                result = resultOf(GetParam(), file);
                came = failure.came();
            }
            expectWhole(result, "no memory");
            if (!came) {
                EXPECT_EQ(result, "good");
                break;
            }
        }
    expectToWork();
}

std::string nameOf(const testing::TestParamInfo<Case>& info) {
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(Files, FailingExports, testing::ValuesIn(cases()), nameOf);
INSTANTIATE_TEST_SUITE_P(Readings, FailingExports, testing::ValuesIn(readings()), nameOf);

class ExportsOnABadDisk : public FailingExports {};

TEST_P(ExportsOnABadDisk, AreWholeOrNotThereWhenItIsFull) {
    for (const bool onlyThatOne : {true, false})
        failEach({.onlyThatOne = onlyThatOne}, "No space left on device");
    expectToWork();
}

TEST_P(ExportsOnABadDisk, GoOnAfterShortAndInterruptedWrites) {
    using Outcome = failing_files::Plan::Outcome;
    failEach({.onlyThatOne = true, .outcome = Outcome::shortWrite}, "none");
    failEach({.onlyThatOne = true, .outcome = Outcome::interrupted}, "none");
}

INSTANTIATE_TEST_SUITE_P(Files, ExportsOnABadDisk, testing::ValuesIn(cases()), nameOf);

}  // namespace
