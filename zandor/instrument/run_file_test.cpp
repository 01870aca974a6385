// What processes recorded into a run folder is there, whatever became of them.
#include <gmock/gmock.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <system_error>

#include "chunk_backup.hpp"
#include "testing/recorder_support.hpp"
#include "testing/temporary_folder.hpp"
#include "zandor/instrument/clock.hpp"
#include "zandor/instrument/controls.hpp"
#include "zandor/instrument/exports.hpp"
#include "zandor/instrument/source.hpp"
#include "zandor/instrument/trace_file.hpp"
#include "zandor/runtime/sanitizers.hpp"

namespace instrument {
namespace {

namespace fs = std::filesystem;
using test_support::Listening;
using test_support::onThreads;
using testing::Contains;
using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;

/// Counts of events that children are sure to have committed.
struct Progress {
    std::atomic<std::uint64_t> pairs[4];
};

class RunFileTest : public test_support::RecorderTest {
  protected:
    static pid_t begin(const std::function<void()>& work) {
        const pid_t child = fork();
        if (child == 0) {
            work();
            _exit(0);
        }
        return child;
    }
    static int statusOf(pid_t child) {
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        return status;
    }
    TraceFile finished() {
        finishRunFolder(folder_.path(), file_);
        return TraceFile(file_);
    }
    static std::int64_t countOf(const TraceFile& trace, std::string_view name) {
        for (const EventSummary& summary : trace.summarize())
            if (summary.name == name)
                return summary.count;
        return 0;
    }
    std::string jsonOf(const TraceFile& trace) const {
        trace.saveTraceEventJson(results_ / "run.json");
        std::ifstream stream(results_ / "run.json");
        return {std::istreambuf_iterator<char>(stream), {}};
    }
    std::size_t filesInFolder() const {
        return static_cast<std::size_t>(
            std::distance(fs::directory_iterator(folder_.path()), fs::directory_iterator()));
    }

    const Instrument work_{"work"};
    const test_support::TemporaryFolder folder_;
    const test_support::TemporaryFolder results_;
    const fs::path file_ = results_ / "run.vtrace";
};

TEST_F(RunFileTest, HasAllThatWasCommittedBeforeAKill) {
    void* shared =
        mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(shared, MAP_FAILED);
    for (const std::uint64_t killAfter : {1, 100, 5'000, 200'000}) {
        const test_support::TemporaryFolder folder;
        auto* progress = ::new (shared) Progress();
        const pid_t child = begin([&] {
            InstrumentRecorder recorder({.folder = folder.path()});
            const Listening listening(recorder);
            onThreads(4, [&](int index) {
                setThreadName("thread " + std::to_string(index));
                for (std::uint64_t i = 0;; ++i) {
                    work_.stop(work_.start({{"number", i}, {"text", std::to_string(i % 100)}}));
                    progress->pairs[index].fetch_add(1);
                }
            });
        });
        for (auto& pairs : progress->pairs)
            while (pairs < killAfter)
                std::this_thread::yield();
        kill(child, SIGKILL);
        EXPECT_TRUE(WIFSIGNALED(statusOf(child)));
        finishRunFolder(folder.path(), file_);
        const TraceFile trace(file_);
        std::uint64_t committed = 0;
        for (const auto& pairs : progress->pairs)
            committed += pairs;
        EXPECT_GE(countOf(trace, "work"), static_cast<std::int64_t>(committed));
        EXPECT_LE(countOf(trace, "work"), static_cast<std::int64_t>(committed + 4));
        EXPECT_EQ(trace.damagedBlocks(), 0u);
        EXPECT_THAT(trace.threadNames(), SizeIs(4));
        EXPECT_THAT(trace.threadNames(), Contains("thread 3"));
        EXPECT_EQ(trace.drops().total(), 0u);
    }
    munmap(shared, sizeof(Progress));
}

/// What of the events that a child produced under a tight bound its file has or counts, when the
/// child is killed where it gives up the shortest for the `nth` time.
TEST_F(RunFileTest, LosesNothingToAKillWhileTheShortestGiveWay) {
    static detail::CompactionPoint killedAt;
    static int left;
    void* shared =
        mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(shared, MAP_FAILED);
    using enum detail::CompactionPoint;
    for (const auto point : {backedUp, marked, moving, rewritten, linked, done}) {
        const int last = point == moving ? 5000 : 50;
        for (const int nth :
             ZANDOR_SANITIZED ? std::vector{1, 7} : std::vector{1, 2, 7, 40, last}) {
            const test_support::TemporaryFolder folder;
            auto* progress = ::new (shared) Progress();
            const pid_t child = begin([&] {
                killedAt = point;
                left = nth;
                detail::compactionCameTo = [](detail::CompactionPoint now) {
                    if (now == killedAt && --left == 0)
                        std::raise(SIGKILL);
                };
                InstrumentRecorder recorder(
                    {.maxBytes = 1 << 20, .keep = Keep::longest, .folder = folder.path()});
                const Listening listening(recorder);
                for (std::uint64_t i = 0;; ++i) {
                    const auto event = work_.start({{"number", i}});
                    for (std::uint64_t spun = 0; spun < i % 7; ++spun)
                        clock::now();
                    work_.stop(event);
                    progress->pairs[0].fetch_add(1);
                }
            });
            EXPECT_TRUE(WIFSIGNALED(statusOf(child)));
            finishRunFolder(folder.path(), file_);
            const TraceFile trace(file_);
            const auto committed = static_cast<std::int64_t>(progress->pairs[0]);
            const auto told =
                countOf(trace, "work") + static_cast<std::int64_t>(trace.drops().shortest);
            EXPECT_GE(told, committed) << static_cast<int>(point) << ", " << nth;
            EXPECT_LE(told, committed + 1) << static_cast<int>(point) << ", " << nth;
            EXPECT_GT(trace.drops().minimumDuration, 0);
            EXPECT_LE(trace.eventCount(), static_cast<std::uint64_t>(countOf(trace, "work") + 1));
        }
    }
    munmap(shared, sizeof(Progress));
}

TEST_F(RunFileTest, HasEachChildAsItsOwnProcess) {
    const pid_t child = begin([&] {
        InstrumentRecorder recorder({.folder = folder_.path()});
        const Listening listening(recorder);
        work_.stop(work_.start());
        statusOf(begin([&] {
            work_.stop(work_.start({{"of", "child"}}));
            statusOf(begin([&] {
                work_.stop(work_.start({{"of", "grandchild"}}));
                raise(SIGKILL);
            }));
        }));
        work_.stop(work_.start());
    });
    EXPECT_EQ(statusOf(child), 0);
    const TraceFile trace = finished();
    EXPECT_EQ(trace.processCount(), 3u);
    EXPECT_EQ(countOf(trace, "work"), 4);
}

TEST_F(RunFileTest, IsReadWhileItsProcessGoesOn) {
    InstrumentRecorder recorder({.maxBytes = 4 << 20, .folder = folder_.path()});
    const Listening listening(recorder);
    std::atomic<bool> done{false};
    std::thread busy([&] {
        while (!done)
            work_.stop(work_.start({{"text", "of many"}}));
    });
    std::int64_t before = 0;
    for (int round = 0; round < 20; ++round) {
        const TraceFile trace = finished();
        const std::int64_t now = countOf(trace, "work");
        EXPECT_GE(now, before);
        EXPECT_EQ(trace.damagedBlocks(), 0u);
        before = now;
    }
    done = true;
    busy.join();
    EXPECT_EQ(countOf(finished(), "work"), recorder.getEventStats("work").count);
}

TEST_F(RunFileTest, RefusesEventsWhereTheDiskIsFull) {
    const pid_t child = begin([&] {
        InstrumentRecorder recorder({.folder = folder_.path()});
        const Listening listening(recorder);
        work_.stop(work_.start());
        const rlim_t bytes =
            600'000 + fs::file_size(fs::directory_iterator(folder_.path())->path());
        const rlimit limit{bytes, bytes};
        setrlimit(RLIMIT_FSIZE, &limit);
        while (recorder.drops().failed < 1000)
            work_.stop(work_.start());
        // What was written stays readable in the process, too.
        if (recorder.getEventStats("work").count < 1000)
            _exit(1);
    });
    EXPECT_EQ(statusOf(child), 0);
    const TraceFile trace = finished();
    EXPECT_GE(countOf(trace, "work"), 1000);
    EXPECT_GE(trace.drops().failed, 1000u);
}

TEST_F(RunFileTest, NeedsNoDescriptorOfTheProgram) {
    const pid_t child = begin([&] {
        InstrumentRecorder recorder({.folder = folder_.path()});
        const Listening listening(recorder);
        work_.stop(work_.start());
        for (int descriptor = 3; descriptor < 1000; ++descriptor)
            close(descriptor);
        if (chdir("/") != 0)
            _exit(1);
        for (int i = 0; i < 50'000; ++i)
            work_.stop(work_.start({{"i", i}}));
        std::raise(SIGKILL);
    });
    EXPECT_TRUE(WIFSIGNALED(statusOf(child)));
    EXPECT_EQ(countOf(finished(), "work"), 50'001);
}

TEST_F(RunFileTest, CallsAThreadWhatItWasCalledLast) {
    InstrumentRecorder recorder({.folder = folder_.path()});
    const Listening listening(recorder);
    std::thread([&] {
        work_.stop(work_.start());
        setThreadName("named later");
    }).join();
    EXPECT_THAT(finished().threadNames(), testing::ElementsAre("named later"));
}

TEST_F(RunFileTest, KnowsWhereInstrumentsStandAndWasToldFirst) {
    const auto* before = controls.getHandle("before");
    controls.setPlace(before, "/a/file.py", 3);
    InstrumentRecorder recorder({.folder = folder_.path()});
    const Listening listening(recorder);
    const auto* later = controls.getHandle("later");
    for (const Opaque* handle : {before, later})
        listeners.onEventStop(handle, ContextArgs(), listeners.onEventStart(handle, ContextArgs()));
    controls.setPlace(later, "/b/file.py", 4);
    controls.setPlace(later, "/b/file.py", 5);
    const std::string direct = getAllCompleteEventsTraceEventJson(recorder, TimeSystem::monotonic,
                                                                  std::chrono::nanoseconds(-1));
    saveTraceFile(recorder, results_ / "saved.vtrace");
    for (const std::string& json :
         {direct, jsonOf(finished()), jsonOf(TraceFile(results_ / "saved.vtrace"))}) {
        EXPECT_THAT(json, HasSubstr(R"("args":{"src":"/a/file.py:3"})"));
        EXPECT_THAT(json, HasSubstr(R"("args":{"src":"/b/file.py:4"})"));
    }
    TraceFile shorter(file_);
    shorter.select({.contexts = false});
    EXPECT_THAT(jsonOf(shorter), Not(HasSubstr("src")));
}

TEST_F(RunFileTest, GoesWhenTheRecordingIsCleared) {
    InstrumentRecorder recorder({.folder = folder_.path()});
    const Listening listening(recorder);
    work_.stop(work_.start());
    EXPECT_EQ(filesInFolder(), 1u);
    recorder.clearAllEventData();
    EXPECT_EQ(filesInFolder(), 0u);
    work_.stop(work_.start());
    EXPECT_EQ(filesInFolder(), 1u);
    EXPECT_EQ(countOf(finished(), "work"), 1);
}

TEST_F(RunFileTest, StaysWhenTheRecorderGoes) {
    {
        InstrumentRecorder recorder({.folder = folder_.path()});
        const Listening listening(recorder);
        work_.stop(work_.start());
    }
    EXPECT_EQ(countOf(finished(), "work"), 1);
}

TEST_F(RunFileTest, NeedsAFolderThatIsThere) {
    EXPECT_THROW(InstrumentRecorder({.folder = folder_ / "missing"}), fs::filesystem_error);
}

/// Files that no recorder wrote, or that lost their end, give what they have.
TEST_F(RunFileTest, SurvivesWhateverAFileHolds) {
    {
        InstrumentRecorder recorder({.folder = folder_.path()});
        const Listening listening(recorder);
        for (int i = 0; i < 1000; ++i)
            work_.stop(work_.start({{"i", i}}));
    }
    const fs::path file = fs::directory_iterator(folder_.path())->path();
    for (std::uintmax_t size = fs::file_size(file); size > 1000; size = size * 3 / 4) {
        fs::resize_file(file, size);
        EXPECT_LE(countOf(finished(), "work"), 1000);
    }
    fs::resize_file(file, 0);
    EXPECT_EQ(finished().processCount(), 0u);
}

}  // namespace
}  // namespace instrument
