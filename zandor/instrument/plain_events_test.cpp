// Events without context by the lane of their thread: as by any other way, whatever changes.
#include "zandor/instrument/plain_events.hpp"

#include <gmock/gmock.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "testing/recorder_support.hpp"

namespace instrument {
namespace {

using test_support::Listening;
using testing::ElementsAre;
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

/// Calls of functions that are events.
class PlainCalls : public PlainEvents {
  protected:
    /// Gives what was called with.
    static void* doNothing(void* first, void*, int) { return first; }
    static void neverUnwound() { ::_exit(2); }

    template <class Function>
    static void* callFunction(void* function, void* second, int) {
        (*static_cast<Function*>(function))();
        return second;
    }
    /// As an event; tells whether the result came back.
    template <class Function>
    bool call(Function function) {
        const PlainCallee callee{callFunction<Function>, neverUnwound};
        return callPlain(&function, this, 0, callee, handle_) == this;
    }
    /// By the general way first, which makes the lane, and then by the lane.
    void makeCalls(int count = 3) {
        for (int i = 0; i < count; ++i)
            EXPECT_TRUE(call([] {}));
    }
};

class Edges : public Starts {
  public:
    void onStop(const Opaque*, const EventContext&, EventId) override { ++stops; }

    int stops = 0;
};

TEST_F(PlainCalls, AreEventsAndGiveWhatTheFunctionGives) {
    const Listening listening(recorder_);
    int result = 0;
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(callPlain(&result, nullptr, i, {doNothing, neverUnwound}, handle_), &result);
    EXPECT_THAT(recorder_.getAllEvents(), SizeIs(3));
}

TEST_F(PlainCalls, AreNestedAsTheFunctionsWere) {
    const Listening listening(recorder_);
    makeCalls();
    recorder_.clearAllEventData();
    makeCalls();
    call([&] { call([&] { makePairs(2); }); });
    std::vector<bool> starts;
    for (const auto& point : recorder_.getAllEventPoints())
        starts.push_back(point.type == EventPointType::start);
    EXPECT_THAT(starts, ElementsAre(true, false, true, false, true, false, true, true, true, false,
                                    true, false, false, false));
}

TEST_F(PlainCalls, AreMadeWhetherOrNotAnybodyListens) {
    int made = 0;
    EXPECT_TRUE(call([&] { ++made; }));
    const Listening listening(recorder_);
    makeCalls(2);
    controls.disableAll();
    EXPECT_TRUE(call([&] { ++made; }));
    controls.enableAll(true);
    EXPECT_EQ(made, 2);
    EXPECT_THAT(recorder_.getAllEvents(), SizeIs(2));
}

TEST_F(PlainCalls, EndForAListenerThatCameMeanwhileAndForNoneThatWent) {
    const Listening listening(recorder_);
    makeCalls();
    Edges came;
    call([&] { listeners.add(came); });
    EXPECT_EQ(came.count, 0);
    EXPECT_EQ(came.stops, 1);
    makeCalls(1);
    call([&] { listeners.remove(came); });
    EXPECT_EQ(came.count, 2);
    EXPECT_EQ(came.stops, 2);
    EXPECT_THAT(recorder_.getAllEvents(), SizeIs(6));
}

TEST_F(PlainCalls, AreNotInTheRecordingThatBeginsMeanwhile) {
    const Listening listening(recorder_);
    makeCalls();
    call([&] { recorder_.clearAllEventData(); });
    EXPECT_THAT(recorder_.getAllEvents(), IsEmpty());
    makeCalls(2);
    EXPECT_THAT(recorder_.getAllEvents(), SizeIs(2));
}

TEST_F(PlainCalls, AreLeftToTheParentByTheChildOfAForkInTheMiddle) {
    const Listening listening(recorder_);
    makeCalls();
    pid_t child = -1;
    call([&] { child = ::fork(); });
    if (child == 0) {
        const bool isEmpty = recorder_.getAllEvents().empty();
        makeCalls(2);
        ::_exit(isEmpty && recorder_.getAllEvents().size() == 2 ? 0 : 1);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_THAT(recorder_.getAllEvents(), SizeIs(4));
}

TEST_F(PlainCalls, KeepListenersExceptionsToThemselves) {
    const Listening listening(recorder_);
    makeCalls();
    Refusing refusing;
    const Listening both(refusing);
    makeCalls(1);
}

TEST_F(PlainCalls, TellWhoCalledThatTheThreadIsUnwound) {
    EXPECT_EXIT(
        {
            const Listening listening(recorder_);
            makeCalls();
            std::thread([&] {
                const auto end = [](void*, void*, int) -> void* { ::pthread_exit(nullptr); };
                callPlain(nullptr, nullptr, 0, {end, [] { ::_exit(7); }}, handle_);
            }).join();
        },
        testing::ExitedWithCode(7), "");
}

}  // namespace
}  // namespace instrument
