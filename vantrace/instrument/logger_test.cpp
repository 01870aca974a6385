// The namespace "logger": its lines on the console, and what its methods do to the switches.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <barrier>
#include <cctype>
#include <cwchar>
#include <string>
#include <thread>
#include <vector>

#include "vantrace/instrument/deferred_printf.hpp"
#include "vantrace/instrument/instrument_logger.hpp"
#include "vantrace/testing/console.hpp"
#include "vantrace/testing/events.hpp"
#include "vantrace/testing/published.hpp"
#include "vantrace/testing/virtual_slots.hpp"
#include "zandor/instrument/instrument.hpp"
#include "zandor/instrument/source.hpp"

namespace {

using instrument::controls;
using instrument::deferredPrintf;
using instrument::EventId;
using instrument::Instrument;
using instrument::InstrumentListener;
using instrument::InstrumentLogger;
using instrument::listeners;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;
using vantrace_testing::Ear;
using vantrace_testing::KeptConsole;
using vantrace_testing::slotOf;

zandor::Value call(const std::string& name) {
    return vantrace_testing::call("instrument.logger." + name);
}

struct TimedLine {
    std::string timeColumn;
    std::string deltaColumn;
    std::string rest;
    long long delta() const { return std::stoll(deltaColumn); }
};

/// Splits "[time, delta] rest".
TimedLine split(const std::string& line) {
    const std::size_t comma = line.find(", ");
    const std::size_t end = line.find("] ");
    if (line.empty() || line[0] != '[' || comma == std::string::npos || end == std::string::npos)
        return {"", "", "no timed line: " + line};
    return {line.substr(1, comma - 1), line.substr(comma + 2, end - comma - 2),
            line.substr(end + 2)};
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find('\n', begin), text.size() - 1);
        lines.push_back(text.substr(begin, end + 1 - begin));
        begin = end + 1;
    }
    return lines;
}

std::string padded(std::string name) {
    name.resize(60, ' ');
    return name;
}

std::string identity(EventId id) {
    return " ; thread " + std::to_string(id.sourceId) + "; ID " + std::to_string(id.serialId) +
           "\n";
}

/// The console is kept and holds no line from before. The first test that runs makes its thread,
/// the main one, the printing thread.
class Logger : public vantrace_testing::WithCleanControls {
  protected:
    void SetUp() override {
        deferredPrintf("%s", "");
        KeptConsole::take();
    }
    void TearDown() override {
        call("stop");
        deferredPrintf("%s", "");
    }

    const KeptConsole console_;
};

TEST_F(Logger, StartWritesABannerWithoutALineEnd) {
    call("start");
    EXPECT_EQ(KeptConsole::take(), "Performance Logging started");
}

TEST_F(Logger, PrintsStartsStopsAndInstants) {
    const Instrument solve("logger.solve");
    call("start");
    KeptConsole::take();
    const Ear ear;
    { const instrument::Scope scope(solve); }
    solve.instant();
    const auto lines = linesOf(KeptConsole::take());
    ASSERT_EQ(lines.size(), 3u);
    const auto& heard = ear.heard();
    EXPECT_EQ(split(lines[0]).rest, "START: " + padded("logger.solve") + identity(heard[0].id));
    EXPECT_EQ(split(lines[1]).rest, "STOP: " + padded("logger.solve") + identity(heard[1].id));
    EXPECT_EQ(split(lines[2]).rest, "INSTANT: " + padded("logger.solve") + identity(heard[2].id));
    for (const std::string& line : lines) {
        EXPECT_GE(split(line).timeColumn.size(), 10u) << line;
        EXPECT_EQ(split(line).deltaColumn.size(), 9u) << line;
    }
}

TEST_F(Logger, PrintsEventsWhoseTimeIsGiven) {
    const auto* handle = controls.getHandle("logger.client");
    const EventId id{instrument::addExternalSource("client", "worker", 1, 1), 7};
    call("start");
    KeptConsole::take();
    listeners.onEventStartAt(handle, {}, id, 11);
    listeners.onEventStopAt(handle, {}, id, -12);
    listeners.onEventInstantAt(handle, {}, id, 13);
    const std::string ids = "; sourceId=" + std::to_string(id.sourceId) + "; serialId=7; time=";
    EXPECT_EQ(KeptConsole::take(), "logger.client started" + ids + "11\n" +
                                       "logger.client stopped" + ids + "-12\n" +
                                       "logger.client instant" + ids + "13\n");
}

TEST_F(Logger, ShowsTheTimeSinceTheLineBeforeAndZeroInTheFirst) {
    InstrumentLogger fresh;  // as the library's own is after loading
    listeners.add(fresh);
    const Instrument solve("logger.deltas");
    controls.enable("logger.deltas");
    solve.instant();
    listeners.onEventInstantAt(controls.getHandle("logger.deltas"), {}, {}, 1);
    solve.instant();
    const auto lines = linesOf(KeptConsole::take());
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(split(lines[0]).deltaColumn, "        0");
    EXPECT_EQ(split(lines[2]).delta(),
              std::stoll(split(lines[2]).timeColumn) - std::stoll(split(lines[0]).timeColumn));
}

TEST_F(Logger, TakesNamesAsTheyAre) {
    const Instrument percent("logger %s %n 100%");
    call("start");
    KeptConsole::take();
    percent.instant();
    EXPECT_THAT(KeptConsole::take(), HasSubstr("INSTANT: " + padded("logger %s %n 100%") + " ; "));
}

TEST_F(Logger, PrintsALongNameWhole) {
    const std::string name = "logger." + std::string(100, 'n');
    const Instrument longNamed(name.c_str());
    call("start");
    KeptConsole::take();
    longNamed.instant();
    EXPECT_THAT(KeptConsole::take(), HasSubstr("INSTANT: " + name + " ; thread "));
}

TEST_F(Logger, CutsLinesTo2047Bytes) {
    const std::string name = "logger." + std::string(3000, 'n');
    const Instrument longNamed(name.c_str());
    call("start");
    KeptConsole::take();
    longNamed.instant();
    EXPECT_EQ(KeptConsole::take().size(), 2047u);
    const int length = deferredPrintf("%s", name.c_str());
    EXPECT_EQ(length, 3007);
    EXPECT_EQ(KeptConsole::take(), name.substr(0, 2047));
}

TEST_F(Logger, LeavesTheLinesOfOtherThreadsToThePrintingOne) {
    const Instrument work("logger.work");
    call("start");
    KeptConsole::take();
    const Ear ear;
    std::thread([&] {
        work.instant();
        work.instant();
    }).join();
    EXPECT_EQ(KeptConsole::take(), "");
    work.instant();
    const auto lines = linesOf(KeptConsole::take());
    ASSERT_EQ(lines.size(), 3u);
    for (std::size_t i = 0; i < 3; ++i)
        EXPECT_EQ(split(lines[i]).rest,
                  "INSTANT: " + padded("logger.work") + identity(ear.heard()[i].id));
}

TEST_F(Logger, LeavesLinesThatComeWhileItPrintsToTheNextCall) {
    static std::string printed;
    printed.clear();
    std::thread([] { deferredPrintf("waiting\n"); }).join();
    const auto before = zandor::setConsoleSink([](const char* text, std::size_t length) noexcept {
        printed.append(text, length);
        if (printed.size() < 1000)
            std::thread([] { deferredPrintf("late\n"); }).join();
        return static_cast<int>(length);
    });
    deferredPrintf("first\n");
    EXPECT_EQ(printed, "waiting\nfirst\n");
    deferredPrintf("second\n");
    zandor::setConsoleSink(before);
    EXPECT_EQ(printed, "waiting\nfirst\nlate\nlate\nsecond\n");
}

TEST_F(Logger, ReportsWhatCannotBeFormatted) {
    EXPECT_EQ(deferredPrintf("%lc", static_cast<wint_t>(0x7fffffff)), -1);
    KeptConsole::take();
    EXPECT_EQ(deferredPrintf("next\n"), 5);
    EXPECT_EQ(KeptConsole::take(), "next\n");
}

TEST_F(Logger, LosesNoLineOfManyThreadsAndKeepsTheOrderOfEach) {
    constexpr int threadCount = 8;
    constexpr int lineCount = 1000;
    std::barrier begin(threadCount);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < threadCount; ++thread) {
        threads.emplace_back([&begin, thread] {
            begin.arrive_and_wait();
            for (int line = 0; line < lineCount; ++line)
                deferredPrintf("%d %d\n", thread, line);
        });
    }
    std::vector<int> next(threadCount);
    std::string printed;
    for (std::thread& thread : threads) {
        deferredPrintf("%s", "");
        printed += KeptConsole::take();
        thread.join();
    }
    deferredPrintf("%s", "");
    printed += KeptConsole::take();
    for (const std::string& line : linesOf(printed)) {
        int thread = 0;
        int number = 0;
        ASSERT_EQ(std::sscanf(line.c_str(), "%d %d", &thread, &number), 2) << line;
        EXPECT_EQ(number, next[static_cast<std::size_t>(thread)]++);
    }
    EXPECT_THAT(next, testing::Each(lineCount));
}

TEST_F(Logger, AForkedChildPrintsItsOwnLinesOnly) {
    call("start");
    const Instrument work("logger.forked");
    std::thread([&] { work.instant(); }).join();
    KeptConsole::take();
    int fromChild[2];
    ASSERT_EQ(::pipe(fromChild), 0);
    pid_t child = -1;
    std::thread([&] {  // a thread that does not print in the parent
        child = ::fork();
        if (child == 0) {
            deferredPrintf("the child's\n");
            const std::string text = KeptConsole::take();
            const bool whole = ::write(fromChild[1], text.data(), text.size()) ==
                               static_cast<ssize_t>(text.size());
            ::_exit(whole ? 0 : 1);
        }
    })
        .join();
    ::close(fromChild[1]);
    int status = -1;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    char text[256] = "";
    EXPECT_GT(::read(fromChild[0], text, sizeof text - 1), 0);
    ::close(fromChild[0]);
    EXPECT_STREQ(text, "the child's\n");
}

TEST_F(Logger, IsActiveFromStartToStop) {
    EXPECT_FALSE(call("isActive").asLogical());
    call("start");
    EXPECT_TRUE(call("isActive").asLogical());
    EXPECT_TRUE(controls.wereAllEnabled());
    call("stop");
    EXPECT_FALSE(call("isActive").asLogical());
    EXPECT_FALSE(controls.wereAllEnabled());
}

TEST_F(Logger, GivesBackTheSwitchesAsStartFoundThem) {
    controls.enableAll(true);
    call("start");
    call("stop");
    EXPECT_TRUE(controls.wereAllEnabled());
    call("stop");  // without a start: off
    EXPECT_FALSE(controls.wereAllEnabled());
}

TEST_F(Logger, KeepsOnlyWhatTheSecondOfTwoStartsFound) {
    call("start");
    call("start");
    KeptConsole::take();
    Instrument("logger.twice").instant();
    EXPECT_EQ(linesOf(KeptConsole::take()).size(), 1u);
    call("stop");
    EXPECT_TRUE(controls.wereAllEnabled());
}

TEST_F(Logger, PrintsThePublishedMethodsEvents) {
    using vantrace_testing::text;
    using vantrace_testing::texts;
    call("start");
    KeptConsole::take();
    vantrace_testing::call("instrument.instruments.startEvent", text("logger.published"),
                           texts({"n", "3"}));
    EXPECT_THAT(split(KeptConsole::take()).rest,
                StartsWith("START: " + padded("logger.published")));
}

TEST(InstrumentLogger, HasItsOperationsBehindTheDestructors) {
    EXPECT_EQ(slotOf(&InstrumentListener::onInstant), 2u);
    EXPECT_EQ(slotOf(&InstrumentListener::onStart), 3u);
    EXPECT_EQ(slotOf(&InstrumentListener::onStop), 4u);
    EXPECT_EQ(slotOf(&InstrumentListener::onInstantAt), 5u);
    EXPECT_EQ(slotOf(&InstrumentListener::onStartAt), 6u);
    EXPECT_EQ(slotOf(&InstrumentListener::onStopAt), 7u);
}

}  // namespace
