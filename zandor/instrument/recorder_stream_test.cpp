// A recorder read window by window, beside the same recording decoded at once.
#include "recorder_stream.hpp"

#include <gmock/gmock.h>

#include <algorithm>
#include <string>
#include <vector>

#include "testing/recorder_support.hpp"
#include "trace_event_json.hpp"
#include "zandor/instrument/exports.hpp"
#include "zandor/instrument/source.hpp"

namespace instrument {
namespace {

using detail::RecorderStream;
using test_support::Listening;
using test_support::onThreads;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

struct Text : TextSink {
    void write(std::string_view text) override { all.append(text); }
    std::string all;
};

std::string jsonOf(detail::EventStream& stream, std::int64_t minimum) {
    Text text;
    detail::writeTraceEventJson(stream, TimeSystem::monotonic, minimum, text);
    return text.all;
}

class RecorderStreamTest : public test_support::RecorderTest {
  protected:
    void expectSameExports() const {
        const detail::Recording recording = detail::takeRecording(recorder_);
        for (const std::int64_t minimum : {-1, 0, 2000}) {
            detail::RecordingStream whole(recording);
            RecorderStream stream(recorder_);
            const std::string found = jsonOf(stream, minimum);
            const std::string expected = jsonOf(whole, minimum);
            const auto differ = std::ranges::mismatch(found, expected);
            EXPECT_EQ(std::string(differ.in1, found.end()).substr(0, 200),
                      std::string(differ.in2, expected.end()).substr(0, 200));
        }
    }

    void nest(int depth) const {
        const Scope scope(work_);
        if (depth > 0)
            nest(depth - 1);
    }

    /// Calls `deliver(time)` with so many times, each a step behind the one before.
    template <class Deliver>
    static void atTimes(int count, std::int64_t step, Deliver deliver) {
        for (int i = 0; i < count; ++i)
            deliver(1'000'000 + i * step);
    }

    void deliver(std::uint64_t serial, std::int64_t start, std::int64_t stop) const {
        listeners.onEventStartAt(work_.handle(), {}, {source_, serial}, start);
        listeners.onEventStopAt(work_.handle(), {}, {source_, serial}, stop);
    }

    /// More than a few windows have.
    static constexpr int many = 10'000;

    InstrumentRecorder recorder_;
    const Listening listening_{recorder_};
    const Instrument work_{"work"};
    const std::uint64_t source_ = addExternalSource("client", "thread", 10, 11);
};

TEST_F(RecorderStreamTest, HasNothingOfAnEmptyRecorder) {
    RecorderStream stream(recorder_);
    EXPECT_THAT(stream.nextEvents(), IsEmpty());
    EXPECT_THAT(stream.nextPoints(), IsEmpty());
    expectSameExports();
}

TEST_F(RecorderStreamTest, GivesEventsThatReachAcrossWindows) {
    const OpenEvent outermost = work_.start({{"whole", true}});
    for (int i = 0; i < many / 50; ++i)
        nest(50);
    const OpenEvent left = work_.start();
    work_.stop(outermost);
    expectSameExports();
    work_.stop(left);
    expectSameExports();
}

TEST_F(RecorderStreamTest, GivesContextsInstantsAndSecondStops) {
    for (int i = 0; i < many; ++i) {
        const OpenEvent event = work_.start({{"i", i % 7}, {"method", "cg"}});
        work_.instant({{"i", i}});
        work_.stop(event);
        if (i % 1000 == 0)
            work_.stop(event);
    }
    expectSameExports();
}

TEST_F(RecorderStreamTest, GivesEventsOfManyThreadsInOrder) {
    onThreads(4, [this](int) {
        for (int i = 0; i < many / 20; ++i)
            nest(5);
    });
    expectSameExports();
}

TEST_F(RecorderStreamTest, GivesEventsThatStopOnAnotherThread) {
    std::vector<OpenEvent> open(many);
    onThreads(1, [&](int) {
        for (OpenEvent& event : open) {
            event = work_.start();
            nest(1);
        }
    });
    onThreads(1, [&](int) {
        for (const OpenEvent& event : open)
            work_.stop(event);
    });
    expectSameExports();
}

TEST_F(RecorderStreamTest, GivesEndsThatMeetStarts) {
    std::uint64_t serial = 0;
    atTimes(many, 100, [&](std::int64_t time) { deliver(++serial, time, time + 100); });
    expectSameExports();
}

TEST_F(RecorderStreamTest, GivesEventsWhoseTimesAreOutOfOrder) {
    std::uint64_t serial = 0;
    atTimes(many, -10, [&](std::int64_t time) {
        listeners.onEventStartAt(work_.handle(), {}, {source_, ++serial}, time);
        listeners.onEventInstantAt(work_.handle(), {}, {source_, serial}, time);
        listeners.onEventStopAt(work_.handle(), {}, {source_, serial},
                                time + static_cast<std::int64_t>(serial % 40) - 5);
    });
    expectSameExports();
}

TEST_F(RecorderStreamTest, TellsWhereStartsMeetStops) {
    deliver(1, 100, 200);
    deliver(2, 200, 200);  // does not last
    deliver(3, 300, 400);
    deliver(4, 400, 500);
    RecorderStream stream(recorder_);
    ASSERT_NE(stream.meetings(), nullptr);
    EXPECT_THAT(stream.meetings()->sorted(), ElementsAre(Pair(0u, 400)));
    expectSameExports();
    deliver(5, 450, 600);  // before the last stop
    EXPECT_EQ(RecorderStream(recorder_).meetings(), nullptr);
    expectSameExports();
}

TEST_F(RecorderStreamTest, DoesNotTellOfMeetingsThatAreOpen) {
    deliver(1, 100, 200);
    listeners.onEventStartAt(work_.handle(), {}, {source_, 2}, 200);
    EXPECT_EQ(RecorderStream(recorder_).meetings(), nullptr);
    expectSameExports();
}

}  // namespace
}  // namespace instrument
