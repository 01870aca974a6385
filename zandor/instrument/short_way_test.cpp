#include "zandor/instrument/short_way.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "zandor/instrument/decided_events.hpp"
#include "zandor/instrument/instrument.hpp"
#include "zandor/instrument/kept_context.hpp"
#include "zandor/instrument/recorder.hpp"
#include "zandor/instrument/testing/event_log.hpp"

namespace instrument {
namespace {

using test_support::ControlsTest;
using test_support::CountingListener;
using test_support::HandlerListener;
using test_support::onThreads;
using ::testing::SizeIs;

/// Counts what it hears by its short way and by its operations.
class ShortListener : public HandlerListener {
  public:
    explicit ShortListener(const ShortOperations& operations = takesAll)
        : HandlerListener([this](auto&&...) { ++generally; }), shortWay_(*this, operations, this) {}
    ~ShortListener() override { listeners.remove(*this); }

    std::uint64_t total() const { return shortly + generally; }

    std::atomic<std::uint64_t> shortly{0};
    std::atomic<std::uint64_t> generally{0};
    std::atomic<std::int64_t> latestTime{0};
    std::vector<std::string> texts;  ///< contexts that came as words
    /// For those that count.
    std::unique_ptr<ShortCount[]> counts = std::make_unique<ShortCount[]>(ShortOperations::counts);

    static void* dataOf(void* self, const detail::ListenerSlot*) noexcept { return self; }
    static bool take(void* listener, const Opaque*, std::uint64_t, std::int64_t time,
                     ContextWords context) noexcept {
        auto& self = *static_cast<ShortListener*>(listener);
        ++self.shortly;
        self.latestTime = time;
        if (!context.empty())
            self.texts.push_back(test_support::textOf(readContext(context)));
        return true;
    }
    static bool leave(void*, const Opaque*, std::uint64_t, std::int64_t, ContextWords) noexcept {
        return false;
    }
    static ShortCount* countsOf(void* listener) noexcept {
        return static_cast<ShortListener*>(listener)->counts.get();
    }
    static constexpr ShortOperations counting{.needsTime = false,
                                              .ignoresContext = false,
                                              .dataOf = dataOf,
                                              .instant = take,
                                              .start = take,
                                              .stop = nullptr,
                                              .countsOf = countsOf};
    static constexpr ShortOperations takesAll{.needsTime = true,
                                              .ignoresContext = false,
                                              .dataOf = dataOf,
                                              .instant = take,
                                              .start = take,
                                              .stop = take};
    static constexpr ShortOperations leavesStops{.needsTime = false,
                                                 .ignoresContext = true,
                                                 .dataOf = dataOf,
                                                 .instant = take,
                                                 .start = take,
                                                 .stop = leave};
    static constexpr ShortOperations ignoresStops{.needsTime = false,
                                                  .ignoresContext = true,
                                                  .dataOf = dataOf,
                                                  .instant = take,
                                                  .start = take,
                                                  .stop = nullptr};

  private:
    const ShortWay shortWay_;
};

class ShortWayTest : public ControlsTest {
  protected:
    void SetUp() override {
        ControlsTest::SetUp();
        controls.enableAll(true);
        // A thread's first event takes the general way, whoever listens.
        CountingListener somebody;
        listeners.add(somebody);
        emit();
        listeners.remove(somebody);
    }
    static void emit() {
        static const Instrument solve{"short.solve"};
        const Scope scope{solve};
        solve.instant();
    }
};

TEST_F(ShortWayTest, EachListenerHearsEachEdgeOnceAndTheRecorderTheSame) {
    InstrumentRecorder recorder;
    ShortListener first;
    ShortListener second;
    listeners.add(first);
    listeners.add(recorder);
    listeners.add(second);
    for (int i = 0; i < 100; ++i)
        emit();
    EXPECT_EQ(first.total(), 300u);
    EXPECT_EQ(second.total(), 300u);
    EXPECT_GT(first.shortly, 0u);
    EXPECT_THAT(recorder.getEvents("short.solve"), SizeIs(100));
    EXPECT_EQ(first.latestTime, second.latestTime) << "the clock was read twice";
    EXPECT_EQ(recorder.getAllEventPoints().back().timePoint, first.latestTime);
}

TEST_F(ShortWayTest, AListenerWithoutOneTakesTheOthersTheGeneralWay) {
    ShortListener quick;
    CountingListener plain;
    listeners.add(quick);
    emit();
    EXPECT_EQ(quick.shortly, 3u);
    listeners.add(plain);
    emit();
    EXPECT_EQ(quick.shortly, 3u);
    EXPECT_EQ(quick.generally, 3u);
    EXPECT_EQ(plain.total(), 3u);
    listeners.remove(plain);
    emit();
    EXPECT_EQ(quick.shortly, 6u);
}

TEST_F(ShortWayTest, WhatAShortWayLeavesReachesTheOperation) {
    ShortListener leaving(ShortListener::leavesStops);
    listeners.add(leaving);
    emit();
    EXPECT_EQ(leaving.shortly, 2u);
    EXPECT_EQ(leaving.generally, 1u);
}

// Before any test makes names, of which only the first have places.
const Instrument counted{"short.counted"};
const Instrument other{"short.uncounted"};

TEST_F(ShortWayTest, CountsAddUpWithoutACallWhereAnInstrumentIsInItsPlace) {
    ASSERT_LT(counted.handle()->id, ShortOperations::counts);
    ShortListener counting(ShortListener::counting);
    ShortListener beside;
    listeners.add(counting);
    listeners.add(beside);
    ShortCount& count = counting.counts[counted.handle()->id];
    count.instrument = counted.handle();
    for (int i = 0; i < 10; ++i) {
        const Scope scope{counted};
        counted.instant();
    }
    EXPECT_EQ(count.count, 20u);
    EXPECT_EQ(counting.total(), 0u);
    EXPECT_EQ(beside.total(), 30u);
    { const Scope scope{other}; }
    EXPECT_EQ(counting.generally, 1u) << "what is not in its place goes to the operation";
    { const Scope scope{counted, {{"n", 1}}}; }
    EXPECT_EQ(counting.shortly, 1u) << "what has a context goes to the short operation";
    EXPECT_EQ(count.count, 20u);
    EXPECT_EQ(beside.total(), 34u);
}

TEST_F(ShortWayTest, AClassDerivedFromAListenerHasNone) {
    struct Derived : ShortListener {
        void onStart(const Opaque*, const EventContext&, EventId) override { ++starts; }
        ~Derived() override { listeners.remove(*this); }
        int starts = 0;
    } derived;
    listeners.add(derived);
    emit();
    EXPECT_EQ(derived.starts, 1);
    EXPECT_EQ(derived.shortly, 0u);
}

TEST_F(ShortWayTest, ContextsComeAsWordsThatReadAsTheyWereGiven) {
    InstrumentRecorder recorder;
    ShortListener asking;
    listeners.add(recorder);
    listeners.add(asking);
    emit();  // the recorder takes a thread's first event the general way
    const std::uint64_t before = asking.shortly;
    const Instrument solve{"short.context"};
    { const Scope scope{solve, {{"n", 3}, {"method", "cg"}}}; }
    solve.instant({{"n", -2.5}, {"on", true}});
    EXPECT_EQ(asking.shortly, before + 3);
    EXPECT_EQ(asking.texts,
              (std::vector<std::string>{"method=cg n=3", "method=cg n=3", "n=-2.5 on=true"}));
    const auto points = recorder.getEventPoints("short.context");
    ASSERT_THAT(points, SizeIs(3));
    for (std::size_t i = 0; i < points.size(); ++i)
        EXPECT_EQ(test_support::textOf(points[i].context), asking.texts[i]);
}

TEST_F(ShortWayTest, ManyEntriesReachEachListenerByItsOperation) {
    InstrumentRecorder recorder;
    ShortListener asking;
    listeners.add(recorder);
    listeners.add(asking);
    const Instrument solve{"short.many"};
    const std::string text = "a=1 b=x c=3 d=y e=5";
    const std::uint64_t before = asking.generally;
    { const Scope scope{solve, {{"a", 1}, {"b", "x"}, {"c", 3}, {"d", "y"}, {"e", 5}}}; }
    solve.stop(solve.start({{"a", 1}, {"b", "x"}, {"c", 3}, {"d", "y"}, {"e", 5}}));
    EXPECT_EQ(asking.generally, before + 4);
    for (const auto& point : recorder.getEventPoints("short.many"))
        EXPECT_EQ(test_support::textOf(point.context), text);
    EXPECT_THAT(recorder.getEvents("short.many"), SizeIs(2));
}

TEST_F(ShortWayTest, AListenerThatComesWhileAScopeIsOpenHearsItsContext) {
    test_support::EventLog log;
    const Instrument solve{"short.later"};
    ShortListener early;
    listeners.add(early);
    {
        const Scope few{solve, {{"n", 3u}, {"tol", 0.5}, {"method", "cg"}}};
        const Scope many{solve, {{"a", 1}, {"b", "x"}, {"c", 3}, {"d", "y"}, {"e", 5}}};
        listeners.add(log);
    }
    EXPECT_EQ(log.story(),
              "stop short.later [a=1 b=x c=3 d=y e=5], "
              "stop short.later [method=cg n=3 tol=0.5]");
}

TEST_F(ShortWayTest, DecidedStopsWithContextReachThoseThatDoNotIgnoreItByTheirOperation) {
    InstrumentRecorder recorder;
    ShortListener ignoring(ShortListener::leavesStops);
    ShortListener asking;
    for (InstrumentListener* listener :
         std::vector<InstrumentListener*>{&recorder, &ignoring, &asking})
        listeners.add(*listener);
    emit();  // the recorder takes a thread's first event the general way
    const std::uint64_t ignoringBefore = ignoring.shortly;
    const std::uint64_t askingBefore = asking.generally;
    const Instrument solve{"short.context"};
    const ContextArg context[] = {{"n", 3}, {"method", "cg"}};
    tellStop(solve.handle(), context, tellStart(solve.handle(), context));
    EXPECT_EQ(ignoring.shortly, ignoringBefore + 1);
    EXPECT_EQ(asking.generally, askingBefore + 1);
    EXPECT_EQ(test_support::textOf(recorder.getEventPoints("short.context").at(0).context),
              "method=cg n=3");
}

TEST_F(ShortWayTest, AStopIsToldWhereverAListenerCameThatHearsStops) {
    ShortListener deaf(ShortListener::ignoresStops);
    ShortListener hearing;
    listeners.add(deaf);
    const Instrument solve{"short.solve"};
    OpenEvent event = solve.start();
    solve.stop(event);
    EXPECT_EQ(deaf.total(), 1u);
    event = solve.start();
    listeners.add(hearing);
    solve.stop(event);
    EXPECT_EQ(hearing.total(), 1u);
}

TEST_F(ShortWayTest, DecidedEventsTakeTextsThatDoNotStay) {
    InstrumentRecorder recorder;
    listeners.add(recorder);
    const Opaque* solve = controls.getHandle("short.decided");
    for (const char* text : {"first", "second"}) {
        std::string value(text);
        const ContextArg arg{"step", value};
        const EventId id = tellStart(solve, {&arg, 1});
        tellStop(solve, {&arg, 1}, id);
        value.assign(value.size(), 'x');
    }
    const auto events = recorder.getEvents("short.decided");
    ASSERT_THAT(events, SizeIs(2));
    EXPECT_EQ(test_support::textOf(events[0].context), "step=first");
    EXPECT_EQ(test_support::textOf(events[1].context), "step=second");
}

TEST_F(ShortWayTest, AListenerMayGoAsSoonAsItsRemovalReturns) {
    InstrumentRecorder recorder;
    listeners.add(recorder);
    std::atomic<bool> done{false};
    std::atomic<std::uint64_t> emitted{0};
    onThreads(3, [&](int thread) {
        if (thread == 0) {
            for (int i = 0; i < 500; ++i) {
                auto listener = std::make_unique<ShortListener>();
                listeners.add(*listener);
                listeners.remove(*listener);
            }
            done = true;
        }
        while (!done) {
            emit();
            ++emitted;
        }
    });
    EXPECT_EQ(recorder.getEvents("short.solve").size() + recorder.drops().total(), emitted);
}

}  // namespace
}  // namespace instrument
