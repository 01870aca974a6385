#include "zandor/instrument/trace_view.hpp"

#include <gmock/gmock.h>

#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <thread>

#include "outline_writer.hpp"
#include "testing/recorder_support.hpp"
#include "testing/temporary_folder.hpp"
#include "trace_reader.hpp"
#include "trace_writer.hpp"
#include "zandor/instrument/source.hpp"
#include "zandor/instrument/trace_file.hpp"
#include "zandor/runtime/sanitizers.hpp"

namespace instrument {
namespace {

using namespace detail;
namespace fs = std::filesystem;
using test_support::Listening;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

/// An external thread whose events have times that the test chooses.
class TraceViewTest : public test_support::RecorderTest {
  protected:
    static constexpr std::int64_t begin = 1'000'000'000;

    void event(const Instrument& name, std::int64_t start, std::int64_t stop) {
        const EventId id{source_, ++serial_};
        listeners.onEventStartAt(name.handle(), {}, id, begin + start);
        listeners.onEventStopAt(name.handle(), {}, id, begin + stop);
    }
    TraceView saved() {
        saveTraceFile(recorder_, file_);
        return TraceView(file_);
    }

    test_support::TemporaryFolder folder_;
    fs::path file_ = folder_.path() / "trace.vtrace";
    const Instrument outer_{"view.outer"};
    const Instrument inner_{"view.inner"};
    InstrumentRecorder recorder_;
    Listening listening_{recorder_};
    std::uint64_t source_ = addExternalSource("other program", "its thread", 77, 78);
    std::uint64_t serial_ = 0;
};

TEST_F(TraceViewTest, ShowsTheEventsOfAWindow) {
    event(outer_, 0, 1000);
    event(inner_, 100, 300);
    event(inner_, 800, 900);
    TraceView view(saved());
    view.read();
    EXPECT_THAT(view.state(), AllOf(HasSubstr("\"phase\":\"whole\""), HasSubstr("\"events\":3"),
                                    HasSubstr("\"duration\":1000,")));
    EXPECT_THAT(view.threads(), "[[\"other program\",77,\"its thread\",78,2,0,0]]");
    EXPECT_THAT(view.window(0, 500, 500, 0, 0), HasSubstr("\"exact\":true"));
    EXPECT_THAT(view.window(0, 500, 500, 0, 0), HasSubstr("[0,0,1,[100,200,"));
    EXPECT_THAT(view.window(0, 500, 500, 0, 0), Not(HasSubstr("800,100")));
    EXPECT_THAT(view.window(0, 500, 500, 1, 5), HasSubstr("\"rows\":[]"));
}

TEST_F(TraceViewTest, TellsWhoCalledWhomInsideAWindow) {
    event(outer_, 0, 1000);
    event(inner_, 100, 300);
    TraceView view(saved());
    view.read();
    EXPECT_THAT(view.flame(200, 600),
                AllOf(HasSubstr("\"begin\":200,\"end\":600"),
                      HasSubstr("\"tree\":[[-1,-1],[0,0,0,1,300],[1,1,0,1,100]]"),
                      HasSubstr("\"names\":[\"view.outer\",\"view.inner\"]")));
}

TEST_F(TraceViewTest, FindsTheNextAndTheOneBefore) {
    event(outer_, 0, 1000);
    event(inner_, 100, 300);
    event(inner_, 800, 900);
    TraceView view(saved());
    view.read();
    const auto found = [&](std::int64_t start, bool isForward) {
        return view.find("VIEW.IN", {.start = start}, isForward);
    };
    EXPECT_THAT(found(0, true), HasSubstr("{\"names\":1,\"events\":2,\"hit\":[100,200,"));
    EXPECT_THAT(found(101, true), HasSubstr("[800,100,\"view.inner\",0,3]"));
    EXPECT_THAT(found(801, true), HasSubstr("\"hit\":null"));
    EXPECT_THAT(found(799, false), HasSubstr("[100,200,"));
    EXPECT_THAT(view.find("nowhere", {}, true), HasSubstr("\"events\":0,\"hit\":null"));
}

TEST_F(TraceViewTest, TellsAllAboutAnEvent) {
    const EventId id{source_, 1};
    listeners.onEventStartAt(outer_.handle(), {{"n", "64"}}, id, begin);
    listeners.onEventStopAt(outer_.handle(), {{"n", "64"}}, id, begin + 50);
    TraceView view(saved());
    view.read();
    EXPECT_THAT(view.details({.start = 0, .serial = 1}),
                AllOf(HasSubstr("\"name\":\"view.outer\""), HasSubstr("\"duration\":50"),
                      HasSubstr("\"context\":[[\"n\",\"64\"]]"),
                      HasSubstr("\"process\":\"other program\"")));
    EXPECT_EQ(view.details({.start = 1, .serial = 1}), "null");
}

TEST_F(TraceViewTest, MarksWhatHadNotEndedAndWhatAnotherThreadEnded) {
    auto open = outer_.start();
    std::thread([&] { outer_.stop(open); }).join();
    (void)inner_.start();
    TraceView view(saved());
    view.read();
    const std::string threads = view.threads();
    EXPECT_THAT(threads, HasSubstr(",1,1,0]"));  // one row of each kind but instants
    const std::string window = view.window(0, 1'000'000'000'000, 10, 0, 9);
    EXPECT_THAT(window, HasSubstr(",1,2,"));  // one event, not ended
    EXPECT_THAT(window, HasSubstr(",1,4,"));  // one event, ended elsewhere
}

TEST_F(TraceViewTest, TellsWhenThreadsWroteBeforeItReads) {
    event(outer_, 500, 600);
    TraceView view(saved());
    EXPECT_THAT(view.state(), HasSubstr("\"phase\":\"first\""));
    EXPECT_THAT(view.activity(), HasSubstr(",[0]]"));
    EXPECT_THAT(view.window(0, 100, 10, 0, 0), HasSubstr("\"until\":0,\"rows\":[]"));
    EXPECT_EQ(view.flame(0, 100), "{}");
    EXPECT_EQ(view.find("outer", {}, true), "null");
    EXPECT_EQ(view.details({}), "null");
    EXPECT_EQ(view.threads(), "[]");
}

std::string allOf(TraceView& view) {
    return view.window(0, INT64_MAX / 2, 1, 0, 9);
}

TEST_F(TraceViewTest, ShowsWhatALargeFileTellsOfItselfBeforeItReads) {
    constexpr int count = OutlineWriter::leastEvents;
    std::thread([&] {
        setThreadName("outlined");
        const Scope outer{outer_};
        for (int i = 0; i < count; ++i)
            const Scope inner{inner_};
    }).join();
    TraceView view(saved());
    EXPECT_THAT(view.state(), HasSubstr("\"phase\":\"first\""));
    EXPECT_THAT(view.threads(), AllOf(HasSubstr("\"outlined\""), HasSubstr(",2,0,0]]")));
    EXPECT_THAT(allOf(view), AllOf(HasSubstr("\"exact\":false"), HasSubstr("view.outer"),
                                   HasSubstr("," + std::to_string(count) + ",0,")));
    view.read();
    EXPECT_THAT(allOf(view), HasSubstr("," + std::to_string(count) + ",0,"));
    EXPECT_THAT(view.state(), HasSubstr("\"events\":" + std::to_string(count + 1)));
}

/// What outlines say is only shown, and never believed.
TEST_F(TraceViewTest, SurvivesAnOutlineOfNonsense) {
    for (int i = 0; i < 600; ++i)
        event(i % 2 == 0 ? outer_ : inner_, 100'000 * i, 100'000 * i + 90'000);
    saveTraceFile(recorder_, file_);
    const TraceReader reader(file_);
    OutlineWriter outline;
    for (const TraceIndexEntry& entry : reader.blocks())
        if (entry.kind == TraceBlock::records) {
            const std::vector<std::uint64_t> payload = *reader.payload(entry);
            outline.add(*reader.stretch(entry), std::span(payload).subspan(3));
        }
    const std::vector<std::uint64_t> good = outline.take(0);
    ASSERT_GT(good.size(), 1000u);
    std::mt19937_64 random(7);
    for (int round = 0; round < (ZANDOR_SANITIZED ? 10 : 50); ++round) {
        std::vector<std::uint64_t> bad = good;
        for (std::size_t i = random() % 20; i < bad.size(); i += 1 + random() % 400)
            bad[i] = random() >> random() % 64;
        bad.resize(bad.size() - random() % 2);
        TraceWriter writer(folder_.path() / "bad.vtrace");
        for (const TraceIndexEntry& entry : reader.blocks()) {
            const std::vector<std::uint64_t> payload = *reader.payload(entry);
            if (entry.kind == TraceBlock::process)
                writer.beginProcess(recordIn<TraceProcess>(payload));
            else
                writer.copy(entry.kind, std::as_bytes(std::span(payload)).first(entry.bytes));
        }
        writer.copy(TraceBlock::outline, std::as_bytes(std::span(bad)));
        writer.commit();
        TraceView view(folder_.path() / "bad.vtrace");
        view.threads();
        allOf(view);
        view.read();
        EXPECT_THAT(view.state(), HasSubstr("\"events\":600"));
    }
}

TEST_F(TraceViewTest, EndsReadingWhenItIsTold) {
    event(outer_, 0, 100);
    TraceView view(saved());
    view.stop();
    view.read();
    EXPECT_THAT(view.state(), HasSubstr("\"phase\":\"first\""));
}

TEST_F(TraceViewTest, AnswersWhileItReads) {
    for (int i = 0; i < 200'000; ++i)
        const Scope scope{i % 2 == 0 ? outer_ : inner_};
    TraceView view(saved());
    std::thread reader([&] { view.read(); });
    while (view.state().find("\"whole\"") == std::string::npos) {
        view.window(0, 1'000'000, 1000, 0, 9);
        view.flame(0, 1'000'000);
        view.threads();
    }
    reader.join();
    EXPECT_THAT(view.state(), HasSubstr("\"events\":200000"));
}

TEST_F(TraceViewTest, GivesNoMoreThanAScreenHolds) {
    for (int i = 0; i < 200'000; ++i)
        const Scope scope{outer_};
    TraceView view(saved());
    view.read();
    EXPECT_LT(view.window(0, 1'000'000'000'000, 2000, 0, 9).size(), 30'000u * 80);
    EXPECT_LT(view.window(0, 100'000'000, 2'000'000'000, 0, 9).size(), 30'000u * 80);
}

TEST_F(TraceViewTest, TakesWindowsWithoutMeaning) {
    event(outer_, 0, 100);
    TraceView view(saved());
    view.read();
    constexpr std::int64_t least = INT64_MIN, most = INT64_MAX;
    EXPECT_EQ(view.window(5, 5, 10, 0, 0), "{\"begin\":5,\"end\":5}");
    EXPECT_EQ(view.flame(10, 5), "{}");
    EXPECT_THAT(view.window(least, most, 0, 0, 0xffffffff), HasSubstr("[0,100,"));
    EXPECT_THAT(view.window(0, 10, 10, 7, 3), HasSubstr("\"rows\":[]"));
    EXPECT_THAT(view.flame(least, most), HasSubstr("\"tree\":[[-1,-1]"));
    EXPECT_EQ(view.details({most, most, 0xffffffff, 5}), "null");
}

TEST_F(TraceViewTest, ShowsATraceWithoutEvents) {
    TraceView view(saved());
    view.read();
    EXPECT_THAT(view.state(), AllOf(HasSubstr("\"phase\":\"whole\""), HasSubstr("\"duration\":0")));
    EXPECT_THAT(view.window(0, 100, 10, 0, 0), HasSubstr("\"rows\":[]"));
}

/// All that can be asked, of whatever is there.
void askEverything(const fs::path& file) {
    TraceView view(file);
    view.activity();
    view.read();
    view.state();
    view.threads();
    const TraceView::Place first{.start = -1};
    for (const std::int64_t end : {std::int64_t{1000}, INT64_MAX}) {
        view.window(INT64_MIN, end, 100, 0, 0xffffffff);
        view.flame(INT64_MIN, end);
    }
    view.find("view", first, true);
    view.details(first);
}

TEST_F(TraceViewTest, ReadsDamagedFilesWithoutHarm) {
    for (int i = 0; i < 500; ++i)
        event(i % 3 == 0 ? outer_ : inner_, i * 10, i * 10 + 25);
    saveTraceFile(recorder_, file_);
    std::ifstream stream(file_, std::ios::binary);
    const std::string good{std::istreambuf_iterator<char>(stream), {}};
    std::mt19937 random(1);
    for (int round = 0; round < (ZANDOR_SANITIZED ? 40 : 200); ++round) {
        std::string bad = good;
        for (int change = 0; change < 3; ++change)
            bad[random() % bad.size()] = static_cast<char>(random());
        std::ofstream(file_, std::ios::binary) << bad.substr(0, 1 + random() % bad.size());
        try {
            askEverything(file_);
        } catch (const std::runtime_error& error) {
            EXPECT_THAT(error.what(), HasSubstr("no trace file"));
        }
    }
}

TEST(TraceView, RefusesWhatIsNoTrace) {
    EXPECT_THROW(TraceView("/nowhere.vtrace"), std::system_error);
    EXPECT_THROW(TraceView("/dev/null"), std::runtime_error);
}

}  // namespace
}  // namespace instrument
