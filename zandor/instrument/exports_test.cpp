// What the public functions make of a real recorder's events.
#include "zandor/instrument/exports.hpp"

#include <gmock/gmock.h>

#include <cerrno>
#include <fstream>
#include <map>
#include <sstream>
#include <system_error>
#include <thread>

#include "zandor/instrument/controls.hpp"
#include "zandor/instrument/instrument.hpp"
#include "zandor/instrument/listeners.hpp"
#include "zandor/instrument/testing/json_reader.hpp"
#include "zandor/instrument/testing/temporary_folder.hpp"
#include "zandor/instrument/testing/trace_rules.hpp"

namespace {

using namespace instrument;
using namespace std::chrono_literals;
using test_support::Json;
using test_support::JsonReader;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

class Exports : public ::testing::Test {
  protected:
    void SetUp() override {
        controls.enableAll(true);
        listeners.add(recorder_);
    }
    void TearDown() override {
        listeners.remove(recorder_);
        controls.disableAll();
    }

    void recordTwoThreads() {
        const Instrument outer{"exports outer"}, inner{"exports inner"};
        setThreadName("exports main");
        {
            Scope scope{outer, {{"n", 3}, {"method", "cg"}}};
            Scope nested{inner};
        }
        std::thread([&] {
            setThreadName("exports worker");
            Scope scope{inner};
            inner.instant();
        }).join();
    }

    std::string json(TimeSystem timeSystem = TimeSystem::monotonic,
                     std::chrono::nanoseconds minimum = -1ns) const {
        return getAllCompleteEventsTraceEventJson(recorder_, timeSystem, minimum);
    }

    static std::map<std::string, int> phases(const std::string& text) {
        const Json document = JsonReader::read(text);
        std::map<std::string, int> count;
        for (const Json& event : document["traceEvents"].elements)
            ++count[event["ph"].text];
        return count;
    }

    static std::string content(const std::filesystem::path& file) {
        std::ostringstream text;
        text << std::ifstream(file).rdbuf();
        return text.str();
    }

    InstrumentRecorder recorder_;
};

TEST_F(Exports, OfAnEmptyRecorderAreWhole) {
    const Json document = JsonReader::read(json());
    EXPECT_THAT(document["traceEvents"].elements, IsEmpty());
    EXPECT_TRUE(document["metadata"].has("origin_utc_ns"));
    EXPECT_THAT(getAllEventsCollapsedStacks(recorder_), IsEmpty());
    EXPECT_THAT(summarize(recorder_), IsEmpty());
}

TEST_F(Exports, ShowThreadsEventsAndContexts) {
    recordTwoThreads();
    const std::string text = json();
    EXPECT_THAT(test_support::TraceRules::violations(JsonReader::read(text)), IsEmpty());
    EXPECT_THAT(text, HasSubstr(R"("name":"exports main")"));
    EXPECT_THAT(text, HasSubstr(R"("name":"exports worker")"));
    EXPECT_THAT(text, HasSubstr("\"name\":\"" + std::string(program_invocation_short_name) + '"'));
    EXPECT_THAT(text, HasSubstr(R"("method":"cg")"));
    EXPECT_EQ(phases(text)["X"], 3);
    EXPECT_EQ(phases(text)["i"], 1);
}

TEST_F(Exports, InUtcStandAtTheTimeOfDay) {
    recordTwoThreads();
    const std::string text = json(TimeSystem::utc);
    EXPECT_THAT(test_support::TraceRules::violations(JsonReader::read(text), 250), IsEmpty());
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto origin = std::chrono::nanoseconds(
        std::stoll(JsonReader::read(text)["metadata"]["origin_utc_ns"].text));
    EXPECT_LT(origin, now);
    EXPECT_GT(origin, now - 1h);
}

TEST_F(Exports, KeepEventsThatLastTheMinimum) {
    recordTwoThreads();
    EXPECT_EQ(phases(json(TimeSystem::monotonic, 24h))["X"], 0);
    EXPECT_EQ(phases(json(TimeSystem::monotonic, 0ns))["i"], 0);
}

TEST_F(Exports, AsStacksBeginWithTheThread) {
    recordTwoThreads();
    EXPECT_THAT(getAllEventsCollapsedStacks(recorder_),
                ElementsAre(StartsWith("exports main;exports outer "),
                            StartsWith("exports main;exports outer;exports inner "),
                            StartsWith("exports worker;exports inner ")));
}

TEST_F(Exports, AsASummaryCountByName) {
    recordTwoThreads();
    std::map<std::string_view, std::int64_t> counts;
    for (const EventSummary& summary : summarize(recorder_))
        counts[summary.name] = summary.count;
    EXPECT_THAT(counts, ElementsAre(std::pair("exports inner", 2), std::pair("exports outer", 1)));
}

TEST_F(Exports, AsFilesAreTheSameTexts) {
    recordTwoThreads();
    const test_support::TemporaryFolder folder;
    saveTraceEventJson(recorder_, TimeSystem::monotonic, -1ns, folder / "exports.json");
    saveCollapsedStacks(recorder_, folder / "exports.txt");
    EXPECT_EQ(content(folder / "exports.json"), json());
    std::string stacks;
    for (const std::string& line : getAllEventsCollapsedStacks(recorder_))
        stacks += line + '\n';
    EXPECT_EQ(content(folder / "exports.txt"), stacks);
}

TEST_F(Exports, ToAFullDeviceFailWithItsName) {
    recordTwoThreads();
    try {
        saveTraceEventJson(recorder_, TimeSystem::monotonic, -1ns, "/dev/full");
        FAIL() << "no error";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code(), std::errc::no_space_on_device);
        EXPECT_THAT(error.what(), HasSubstr("/dev/full"));
    }
    EXPECT_THROW(saveCollapsedStacks(recorder_, "/dev/full"), std::system_error);
}

TEST_F(Exports, LetTheSinksExceptionPass) {
    struct FullSink : TextSink {
        void write(std::string_view) override { throw std::length_error("full"); }
    } sink;
    EXPECT_THROW(writeTraceEventJson(recorder_, TimeSystem::monotonic, -1ns, sink),
                 std::length_error);
}

}  // namespace
