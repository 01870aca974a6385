// A decoded recording, as exports take it.
#include "recording.hpp"

#include <gmock/gmock.h>
#include <unistd.h>

#include "testing/recorder_support.hpp"
#include "zandor/instrument/clock.hpp"
#include "zandor/instrument/source.hpp"

namespace instrument {
namespace {

using detail::Recording;
using test_support::Listening;
using testing::IsEmpty;
using testing::SizeIs;

class RecordingTest : public test_support::RecorderTest {
  protected:
    Recording take() const { return detail::takeRecording(recorder_); }

    InstrumentRecorder recorder_;
    const Listening listening_{recorder_};
    const Instrument work_{"work"};
};

TEST_F(RecordingTest, IsEmptyBeforeTheFirstEvent) {
    const Recording recording = take();
    EXPECT_THAT(recording.sources, IsEmpty());
    EXPECT_THAT(recording.events, IsEmpty());
    EXPECT_THAT(recording.strayPoints, IsEmpty());
    EXPECT_EQ(recording.originMonotonic, 0);
    EXPECT_EQ(recording.originUtc, 0);
    EXPECT_EQ(recording.processId, static_cast<std::uint64_t>(getpid()));
}

TEST_F(RecordingTest, BeginsWithItsFirstEventAndAgainAfterClear) {
    for (int round = 0; round < 2; ++round) {
        const std::int64_t before = clock::now();
        const std::int64_t utcBefore = clock::utcNow();
        work_.stop(work_.start());
        const std::int64_t after = clock::now();
        work_.instant();
        const Recording recording = take();
        ASSERT_THAT(recording.events, SizeIs(1));
        EXPECT_EQ(recording.originMonotonic, recording.events[0].start);
        EXPECT_LE(before, recording.originMonotonic);
        EXPECT_LE(recording.originMonotonic, after);
        // Two clocks that are read one after the other, and may be adjusted.
        EXPECT_NEAR(static_cast<double>(recording.originUtc), static_cast<double>(utcBefore), 1e9);
        EXPECT_EQ(recording.lastTime, recording.strayPoints[0].time);
        recorder_.clearAllEventData();
    }
}

TEST_F(RecordingTest, OfEventsWithGivenTimesBeginsWithTheFirstReceived) {
    const std::uint64_t source = addExternalSource("client", "thread", 10, 11);
    listeners.onEventStartAt(work_.handle(), {}, {source, 1}, 5000);
    listeners.onEventStopAt(work_.handle(), {}, {source, 1}, 4000);
    const Recording recording = take();
    EXPECT_EQ(recording.originMonotonic, 5000);
    EXPECT_EQ(recording.lastTime, 5000);
    ASSERT_THAT(recording.events, SizeIs(1));
    EXPECT_TRUE(recording.events[0].finished);
    EXPECT_EQ(recording.events[0].stop, 4000);
    ASSERT_THAT(recording.sources, SizeIs(1));
    EXPECT_EQ(recording.sources[0].id, source);
    EXPECT_EQ(recording.sources[0].name, "thread");
    EXPECT_EQ(recording.sources[0].processName, "client");
    EXPECT_EQ(recording.sources[0].processId, 10u);
    EXPECT_EQ(recording.sources[0].threadId, 11u);
}

TEST_F(RecordingTest, HasOpenEventsAndWhereStopsCameFrom) {
    setThreadName("starter");
    const auto open = work_.start();
    const auto other = work_.start({{"n", 1}, {"m", "x"}});
    std::thread([&] {
        setThreadName("stopper");
        work_.stop(other);
        work_.stop(other);
    }).join();
    const Recording recording = take();
    ASSERT_THAT(recording.events, SizeIs(2));
    const auto& [first, second] = std::pair(recording.events[0], recording.events[1]);
    EXPECT_FALSE(first.finished);
    EXPECT_EQ(first.stop, first.start);
    EXPECT_EQ(first.serial, open.id().serialId);
    EXPECT_TRUE(second.finished);
    EXPECT_EQ(recording.sources[second.source].name, "starter");
    EXPECT_EQ(recording.sources[second.stopSource].name, "stopper");
    const ContextArgs context = second.context;
    ASSERT_THAT(context, SizeIs(2));
    EXPECT_EQ(context[0].name, "m");
    EXPECT_EQ(context[0].value.text(), "x");
    EXPECT_EQ(context[1].name, "n");
    EXPECT_EQ(context[1].value.signedInteger(), 1);
    ASSERT_THAT(recording.strayPoints, SizeIs(1));
    EXPECT_EQ(recording.strayPoints[0].type, EventPointType::stop);
    EXPECT_EQ(recording.strayPoints[0].serial, other.id().serialId);
    EXPECT_EQ(recording.sources[recording.strayPoints[0].source].name, "stopper");
    EXPECT_THAT(recording.strayPoints[0].context, SizeIs(2));
    work_.stop(open);
}

TEST_F(RecordingTest, IsTheSameAtEachReading) {
    test_support::onThreads(3, [&](int) {
        for (int i = 0; i < 1000; ++i)
            const Scope scope{work_, {{"i", i % 3}}};
    });
    const Recording first = take();
    work_.instant();
    const Recording second = take();
    ASSERT_EQ(first.events.size(), second.events.size());
    for (std::size_t i = 0; i < first.events.size(); ++i) {
        EXPECT_EQ(first.events[i].start, second.events[i].start);
        EXPECT_EQ(first.events[i].stop, second.events[i].stop);
        EXPECT_EQ(first.events[i].serial, second.events[i].serial);
    }
    for (std::size_t i = 1; i < first.sources.size(); ++i)
        EXPECT_LT(first.sources[i - 1].id, first.sources[i].id);
    EXPECT_EQ(first.originMonotonic, second.originMonotonic);
    EXPECT_EQ(first.originUtc, second.originUtc);
}

}  // namespace
}  // namespace instrument
