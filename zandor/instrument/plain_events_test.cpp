// Events without context by the lane of their thread: as by any other way, whatever changes.
#include "zandor/instrument/plain_events.hpp"

#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <thread>

#include "testing/recorder_support.hpp"

namespace instrument {
namespace {

using test_support::Listening;
using testing::IsEmpty;
using testing::SizeIs;

class PlainEvents : public test_support::RecorderTest {
  protected:
    /// By the general way first, which makes the lane, and then by the lane.
    void makePairs(int count = 3) const {
        for (int i = 0; i < count; ++i)
            stopPlain(handle_, startPlain(handle_));
    }

    const Opaque* const handle_ = Instrument("plain").handle();
    InstrumentRecorder recorder_;
};

class Starts : public InstrumentListener {
  public:
    void onInstant(const Opaque*, const EventContext&, EventId) override {}
    void onStart(const Opaque*, const EventContext&, EventId) override { ++count; }
    void onStop(const Opaque*, const EventContext&, EventId) override {}
    void onInstantAt(const Opaque*, const EventContext&, EventId, std::int64_t) override {}
    void onStartAt(const Opaque*, const EventContext&, EventId, std::int64_t) override {}
    void onStopAt(const Opaque*, const EventContext&, EventId, std::int64_t) override {}

    int count = 0;
};

class Refusing : public Starts {
  public:
    void onStart(const Opaque*, const EventContext&, EventId) override {
        throw std::runtime_error("refused");
    }
};

TEST_F(PlainEvents, AreRecordedWithTheirStops) {
    const Listening listening(recorder_);
    makePairs();
    instantPlain(handle_);
    instantPlain(handle_);
    const auto events = recorder_.getAllEvents();
    ASSERT_THAT(events, SizeIs(3));
    for (const auto& event : events)
        EXPECT_EQ(event.name, "plain");
    EXPECT_THAT(recorder_.getAllEventPoints(), SizeIs(8));
}

TEST_F(PlainEvents, AreNotDeliveredWhileTheInstrumentIsOffOrNobodyListens) {
    EXPECT_EQ(startPlain(handle_), noListenerEventId);
    const Listening listening(recorder_);
    makePairs(2);
    controls.disableAll();
    EXPECT_EQ(startPlain(handle_), disabledEventId);
    instantPlain(handle_);
    controls.enableAll(true);
    makePairs(1);
    EXPECT_THAT(recorder_.getAllEvents(), SizeIs(3));
}

TEST_F(PlainEvents, ReachAListenerThatComesAndNoneThatWent) {
    const Listening listening(recorder_);
    makePairs();
    Starts starts;
    {
        const Listening both(starts);
        makePairs(2);
        EXPECT_EQ(starts.count, 2);
    }
    makePairs();
    EXPECT_EQ(starts.count, 2);
    EXPECT_THAT(recorder_.getAllEvents(), SizeIs(8));
}

TEST_F(PlainEvents, GoToTheRecordingThatBeginsWhenAllIsCleared) {
    const Listening listening(recorder_);
    makePairs();
    const EventId open = startPlain(handle_);
    recorder_.clearAllEventData();
    stopPlain(handle_, open);
    EXPECT_THAT(recorder_.getAllEvents(), IsEmpty());
    makePairs();
    EXPECT_THAT(recorder_.getAllEvents(), SizeIs(3));
}

TEST_F(PlainEvents, MayBeStoppedByAnotherThread) {
    const Listening listening(recorder_);
    makePairs();
    const EventId open = startPlain(handle_);
    std::thread([&] {
        makePairs();
        stopPlain(handle_, open);
    }).join();
    EXPECT_THAT(recorder_.getAllEvents(), SizeIs(7));
}

TEST_F(PlainEvents, HaveListenersExceptionsComeOut) {
    const Listening listening(recorder_);
    makePairs();
    Refusing refusing;
    const Listening both(refusing);
    EXPECT_THROW(startPlain(handle_), std::runtime_error);
}

TEST_F(PlainEvents, BeginAnewInTheChildOfAFork) {
    const Listening listening(recorder_);
    makePairs();
    const pid_t child = ::fork();
    if (child == 0) {
        makePairs(2);
        ::_exit(recorder_.getAllEvents().size() == 2 ? 0 : 1);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_THAT(recorder_.getAllEvents(), SizeIs(3));
}

}  // namespace
}  // namespace instrument
