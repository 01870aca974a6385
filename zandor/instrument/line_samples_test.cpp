// Samples of lines: what a stream has comes out, also through trace files, and whatever it holds is
// read without harm.
#include "zandor/instrument/line_samples.hpp"

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include "testing/recorder_support.hpp"
#include "testing/temporary_folder.hpp"
#include "trace_writer.hpp"
#include "zandor/instrument/clock.hpp"
#include "zandor/instrument/source.hpp"
#include "zandor/instrument/trace_file.hpp"

namespace instrument {
namespace {

namespace fs = std::filesystem;
using test_support::Listening;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr std::int64_t second = 1'000'000'000;

SourceLine lineOfSolve(std::uint32_t number) {
    return {"solve.py", "solve", number, "return a @ b"};
}

/// Two periods of two threads; the second one's only line is the first one's.
LineStream someStream() {
    LineStream stream;
    const auto first = stream.addThread(11, "first");
    const auto line = stream.addLine(lineOfSolve(3));
    stream.addPeriod({0, second, 1000, 1},
                     std::vector<LineTime>{{first, LineTime::allLines, second, 9, 8},
                                           {first, line, 700, 600, 500}});
    const auto other = stream.addThread(12, "other");
    stream.addPeriod({second, 2 * second, 900, 0},
                     std::vector<LineTime>{{other, line, 70, 60, 50}});
    return stream;
}

LineSamples read(std::span<const std::byte> stream) {
    LineSamples samples;
    addLineSamples(stream, {}, samples);
    return samples;
}

std::vector<std::int64_t> selfTimes(const LineSamples& samples) {
    std::vector<std::int64_t> times;
    for (const LineSamples::Time& time : samples.times)
        times.push_back(time.self);
    return times;
}

std::vector<std::byte> joined(std::span<const std::byte> first,
                              std::span<const std::byte> second_) {
    std::vector<std::byte> bytes(first.begin(), first.end());
    bytes.insert(bytes.end(), second_.begin(), second_.end());
    return bytes;
}

TEST(LineSamplesTest, AStreamTellsWhatWasPutIntoIt) {
    const LineSamples samples = read(someStream().bytes());
    ASSERT_THAT(samples.threads, SizeIs(2));
    EXPECT_EQ(samples.threads[1].name, "other");
    EXPECT_EQ(samples.threads[1].id, 12u);
    EXPECT_THAT(samples.lines, ElementsAre(lineOfSolve(3)));
    EXPECT_THAT(selfTimes(samples), ElementsAre(second, 700, 70));
    EXPECT_EQ(samples.times[0].line, LineTime::allLines);
    EXPECT_EQ(samples.times[2].thread, 1u);
    EXPECT_EQ(samples.times[2].period, 1u);
    EXPECT_EQ(samples.times[2].cpu, 60);
    EXPECT_EQ(samples.times[2].held, 50);
    EXPECT_EQ(samples.periods[0].ticks, 1000u);
    EXPECT_EQ(samples.periods[0].misread, 1u);
}

TEST(LineSamplesTest, StreamsOneBehindTheOtherAreAStream) {
    const LineStream stream = someStream();
    const LineSamples samples = read(joined(stream.bytes(), stream.bytes()));
    EXPECT_THAT(samples.threads, SizeIs(4));
    EXPECT_THAT(samples.lines, SizeIs(1));
    EXPECT_THAT(selfTimes(samples), ElementsAre(second, 700, 70, second, 700, 70));
    EXPECT_EQ(samples.times[5].thread, 3u);
}

TEST(LineSamplesTest, NumbersGoOnWhenBytesWereForgotten) {
    LineStream stream = someStream();
    const std::vector<std::byte> before(stream.bytes().begin(), stream.bytes().end());
    stream.forget();
    const auto line = stream.addLine(lineOfSolve(4));
    stream.addPeriod({2, 3, 1, 0}, std::vector<LineTime>{{0, line, 5, 0, 0}});
    const LineSamples samples = read(joined(before, stream.bytes()));
    EXPECT_EQ(samples.lines.at(samples.times.back().line).number, 4u);
}

TEST(LineSamplesTest, OfACutStreamWhatIsWholeIsRead) {
    const LineStream stream = someStream();
    std::size_t most = 0;
    for (std::size_t size = 0; size <= stream.bytes().size(); ++size) {
        const LineSamples samples = read(stream.bytes().first(size));
        EXPECT_GE(samples.times.size(), most);
        most = samples.times.size();
    }
    EXPECT_EQ(most, 3u);
}

TEST(LineSamplesTest, WhateverAStreamHoldsIsReadWithoutHarm) {
    std::minstd_rand random(1);
    const LineStream stream = someStream();
    for (int round = 0; round < 20'000; ++round) {
        std::vector<std::byte> bytes(stream.bytes().begin(), stream.bytes().end());
        for (int change = 0; change < 3; ++change)
            bytes[random() % bytes.size()] = static_cast<std::byte>(random());
        const LineSamples samples = read(bytes);
        for (const LineSamples::Time& time : samples.times) {
            EXPECT_LT(time.thread, samples.threads.size());
            EXPECT_TRUE(time.line == LineTime::allLines || time.line < samples.lines.size());
            EXPECT_LT(time.period, samples.periods.size());
        }
    }
}

class LineFileTest : public test_support::RecorderTest {
  protected:
    void record(InstrumentRecorder& recorder) {
        const Listening listening(recorder);
        setDefaultThreadName("solver");
        const Scope scope{outer_};
    }
    /// As a sampler of this process would have it, from a second after the recording's beginning.
    LineStream streamOfThisThread(std::uint64_t threadId) {
        LineStream stream;
        const auto thread = stream.addThread(threadId, "program");
        const auto line = stream.addLine(lineOfSolve(3));
        stream.addPeriod({clock::now() + second, clock::now() + 2 * second, 1, 0},
                         std::vector<LineTime>{{thread, line, 70, 60, 50}});
        return stream;
    }

    const Instrument outer_{"outer"};
    const test_support::TemporaryFolder folder_;
};

TEST_F(LineFileTest, ATraceFileKeepsAStream) {
    InstrumentRecorder recorder;
    record(recorder);
    saveTraceFile(recorder, folder_ / "own.vtrace", someStream().bytes());
    const LineSamples samples = TraceFile(folder_ / "own.vtrace").lineSamples();
    EXPECT_THAT(selfTimes(samples), ElementsAre(second, 700, 70));
    EXPECT_THAT(samples.lines, ElementsAre(lineOfSolve(3)));
}

TEST_F(LineFileTest, ATraceFileWithoutSamplesHasNone) {
    InstrumentRecorder recorder;
    record(recorder);
    saveTraceFile(recorder, folder_ / "own.vtrace");
    const LineSamples samples = TraceFile(folder_ / "own.vtrace").lineSamples();
    EXPECT_THAT(samples.threads, IsEmpty());
    EXPECT_THAT(samples.times, IsEmpty());
}

TEST_F(LineFileTest, ThreadsHaveTheNamesOfTheRecordingAndPeriodsItsTimes) {
    InstrumentRecorder recorder;
    record(recorder);
    const auto names = threadNamesById(recorder);
    ASSERT_THAT(names, SizeIs(1));
    const auto& [threadId, name] = *names.begin();
    saveTraceFile(recorder, folder_ / "own.vtrace", streamOfThisThread(threadId).bytes());
    const LineSamples samples = TraceFile(folder_ / "own.vtrace").lineSamples();
    EXPECT_EQ(samples.threads.at(0).name, name);
    EXPECT_GE(samples.periods.at(0).begin, second);
    EXPECT_LT(samples.periods.at(0).begin, 1000 * second);
}

TEST_F(LineFileTest, StreamsInARunFolderJoinTheProcessOfTheirId) {
    InstrumentRecorder recorder({.folder = folder_.path()});
    record(recorder);
    const auto write = [&](const std::string& name, const LineStream& stream) {
        std::ofstream file(folder_ / name, std::ios::binary);
        file.write(reinterpret_cast<const char*>(stream.bytes().data()),
                   static_cast<std::streamsize>(stream.bytes().size()));
    };
    write(std::to_string(getpid()) + "-5.lines", someStream());
    write("0-5.lines", someStream());
    finishRunFolder(folder_.path(), folder_ / "whole.vtrace");
    combineTraceFiles({folder_ / "whole.vtrace", folder_ / "whole.vtrace"}, folder_ / "two.vtrace");
    EXPECT_THAT(selfTimes(TraceFile(folder_ / "whole.vtrace").lineSamples()),
                ElementsAre(second, 700, 70));
    const LineSamples both = TraceFile(folder_ / "two.vtrace").lineSamples();
    EXPECT_THAT(both.times, SizeIs(6));
    EXPECT_EQ(both.threads.at(2).process, 1u);
}

TEST_F(LineFileTest, BlocksOfAKindThatIsNotKnownAreSkipped) {
    const fs::path file = folder_ / "own.vtrace";
    {
        detail::TraceWriter writer(file);
        writer.beginProcess({});
        writer.copy(static_cast<detail::TraceBlock>(99), someStream().bytes());
        writer.lines(someStream().bytes());
        writer.commit();
    }
    const TraceFile trace(file);
    EXPECT_EQ(trace.damagedBlocks(), 0u);
    EXPECT_THAT(selfTimes(trace.lineSamples()), ElementsAre(second, 700, 70));
}

}  // namespace
}  // namespace instrument
