// A child after fork has the recorder registered, and empty.
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>

#include "testing/recorder_support.hpp"

namespace instrument {
namespace {

using test_support::Listening;
using testing::SizeIs;

class RecorderFork : public test_support::RecorderTest {
  protected:
    /// Whether a child finds `check` true. It ends at once, without exit handlers.
    static bool inChild(const std::function<bool()>& check) {
        const pid_t child = fork();
        if (child == 0)
            _exit(check() ? 0 : 1);
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        return WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }

    const Instrument work_{"work"};
};

TEST_F(RecorderFork, LeavesTheChildARegisteredAndEmptyRecorder) {
    InstrumentRecorder recorder({.maxBytes = 256 * 1024});
    const Listening listening(recorder);
    while (recorder.drops().refused < 10)
        work_.stop(work_.start());
    const auto open = work_.start();
    const auto before = recorder.getEventStats("work");
    const auto isEmptyAndRecords = [&] {
        if (!listeners.has(recorder) || !recorder.getAllEventPoints().empty() ||
            recorder.bytesInUse() != 0 || recorder.drops().total() != 0)
            return false;
        work_.stop(work_.start());
        work_.instant();
        if (recorder.getEventStats("work").count != 1 || recorder.getAllEventPoints().size() != 3)
            return false;
        recorder.clearAllEventData();
        return recorder.getAllEvents().empty();
    };
    EXPECT_TRUE(inChild(isEmptyAndRecords));
    EXPECT_TRUE(inChild([&] { return inChild(isEmptyAndRecords); }));
    EXPECT_EQ(recorder.getEventStats("work").count, before.count);
    work_.stop(open);
}

TEST_F(RecorderFork, LetsTheChildDestroyItsRecorder) {
    auto recorder = std::make_unique<InstrumentRecorder>();
    const Listening listening(*recorder);
    work_.stop(work_.start());
    EXPECT_TRUE(inChild([&] {
        recorder.reset();
        InstrumentRecorder other;
        listeners.add(other);
        work_.stop(work_.start());
        return other.getAllEvents().size() == 1;
    }));
    EXPECT_THAT(recorder->getAllEvents(), SizeIs(1));
}

TEST_F(RecorderFork, MayHappenWhileOthersRecordClearAndRead) {
    InstrumentRecorder recorder({.maxBytes = 1024 * 1024, .keep = Keep::last});
    const Listening listening(recorder);
    std::atomic<bool> done{false};
    std::vector<std::thread> others;
    for (int i = 0; i < 3; ++i)
        others.emplace_back([&, i] {
            while (!done)
                const Scope scope{work_, {{"thread", i}}};
        });
    others.emplace_back([&] {
        while (!done) {
            recorder.drops();
            recorder.clearAllEventData();
        }
    });
    int good = 0;
    for (int i = 0; i < 200; ++i)
        good += inChild([&] {
            work_.stop(work_.start());
            return recorder.drops().total() == 0 && recorder.getEventStats("work").count == 1;
        });
    done = true;
    for (std::thread& other : others)
        other.join();
    EXPECT_EQ(good, 200);
}

}  // namespace
}  // namespace instrument
