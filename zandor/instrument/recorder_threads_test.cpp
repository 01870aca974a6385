// Recording on many threads at once: nothing is lost, nothing doubled, whatever else goes on.
#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <set>

#include "testing/recorder_support.hpp"
#include "zandor/instrument/event_context.hpp"

namespace instrument {
namespace {

using test_support::Listening;
using test_support::onThreads;
using testing::IsEmpty;
using testing::SizeIs;
using EventPoint = InstrumentRecorder::EventPoint;

class RecorderThreads : public test_support::RecorderTest {
  protected:
    const Instrument work_{"work"};
    const Instrument step_{"step"};
};

/// A recorder that counts what it is told, by source and kind.
class CountingRecorder : public InstrumentRecorder {
  public:
    using Counts = std::map<std::uint64_t, std::array<std::uint64_t, 3>>;
    ~CountingRecorder() override { listeners.remove(*this); }

    Counts told() const {
        const std::lock_guard lock(mutex_);
        return told_;
    }
    void onStart(const Opaque* i, const EventContext& c, EventId id) noexcept override {
        count(c, EventPointType::start);
        InstrumentRecorder::onStart(i, c, id);
    }
    void onStop(const Opaque* i, const EventContext& c, EventId id) noexcept override {
        count(c, EventPointType::stop);
        InstrumentRecorder::onStop(i, c, id);
    }
    void onInstant(const Opaque* i, const EventContext& c, EventId id) noexcept override {
        count(c, EventPointType::instant);
        InstrumentRecorder::onInstant(i, c, id);
    }

  private:
    void count(const EventContext& context, EventPointType type) {
        const std::lock_guard lock(mutex_);
        ++told_[context.sourceId()][static_cast<std::size_t>(type)];
    }
    mutable std::mutex mutex_;
    Counts told_;
};

TEST_F(RecorderThreads, LoseNothingWhileTheRecorderComesAndGoesAndIsRead) {
    CountingRecorder recorder;
    std::atomic<bool> done{false};
    std::thread toggler([&] {
        while (!done) {
            listeners.add(recorder);
            std::this_thread::yield();
            listeners.remove(recorder);
        }
    });
    std::thread reader([&] {
        while (!done)
            recorder.getAllEventStats();
    });
    onThreads(8, [&](int) {
        for (int i = 0; i < 3000; ++i) {
            const Scope outer{work_};
            const Scope inner{step_, {{"i", i}}};
            step_.instant();
        }
    });
    done = true;
    toggler.join();
    reader.join();
    std::array<std::uint64_t, 3> told{};
    for (const auto& [source, counts] : recorder.told())
        for (std::size_t type = 0; type < told.size(); ++type)
            told[type] += counts[type];
    std::array<std::uint64_t, 3> kept{};
    std::set<std::tuple<std::uint64_t, std::uint64_t, EventPointType>> distinct;
    for (const EventPoint& point : recorder.getAllEventPoints()) {
        ++kept[static_cast<std::size_t>(point.type)];
        distinct.emplace(point.id.sourceId, point.id.serialId, point.type);
    }
    EXPECT_EQ(kept, told);
    EXPECT_EQ(distinct.size(), told[0] + told[1] + told[2]);
    EXPECT_EQ(recorder.drops().total(), 0u);
}

TEST_F(RecorderThreads, EachKeepAllTheirEvents) {
    InstrumentRecorder recorder;
    const Listening listening(recorder);
    onThreads(8, [&](int) {
        for (int i = 0; i < 20'000; ++i) {
            const Scope outer{work_};
            step_.instant();
        }
    });
    std::map<std::uint64_t, int> perSource;
    for (const auto& event : recorder.getEvents("work"))
        ++perSource[event.id.sourceId];
    EXPECT_THAT(perSource, SizeIs(8));
    for (const auto& [source, count] : perSource)
        EXPECT_EQ(count, 20'000);
    EXPECT_THAT(recorder.getEventPoints("step"), SizeIs(160'000));
}

TEST_F(RecorderThreads, ThatEndAtOnceAreInTheNextSnapshot) {
    InstrumentRecorder recorder;
    const Listening listening(recorder);
    for (int i = 1; i <= 300; ++i) {
        std::thread([&, i] {
            setThreadName("thread " + std::to_string(i));
            const Scope scope{work_};
        }).join();
        ASSERT_THAT(recorder.getAllEvents(), SizeIs(i));
    }
    std::set<std::uint64_t> sources;
    std::set<std::string> names;
    for (const auto& event : recorder.getAllEvents()) {
        sources.insert(event.id.sourceId);
        names.emplace(event.source);
    }
    EXPECT_THAT(sources, SizeIs(300));
    EXPECT_THAT(names, SizeIs(300));
}

TEST_F(RecorderThreads, ThatLiveShortlyTakeLittleMemory) {
    InstrumentRecorder recorder;
    const Listening listening(recorder);
    for (int i = 0; i < 2000; ++i)
        std::thread([&] { const Scope scope{work_}; }).join();
    EXPECT_THAT(recorder.getAllEvents(), SizeIs(2000));
    EXPECT_LT(recorder.bytesInUse(), 2000u * 256);
}

struct EmitsAtThreadEnd {
    ~EmitsAtThreadEnd() { const Scope scope{Instrument{"at thread end"}}; }
};

TEST_F(RecorderThreads, AreHeardFromTheDestructorsOfTheirVariables) {
    InstrumentRecorder recorder;
    const Listening listening(recorder);
    std::thread([&] {
        const Scope scope{work_};
        thread_local EmitsAtThreadEnd atEnd;
        static_cast<void>(&atEnd);
    }).join();
    const auto events = recorder.getAllEvents();
    ASSERT_THAT(events, SizeIs(2));
    EXPECT_EQ(events[1].name, "at thread end");
    EXPECT_EQ(events[0].id.sourceId, events[1].id.sourceId);
}

TEST_F(RecorderThreads, GoOnWhileOthersClearAndRead) {
    InstrumentRecorder recorder;
    const Listening listening(recorder);
    std::atomic<bool> done{false};
    std::thread clearer([&] {
        while (!done)
            recorder.clearAllEventData();
    });
    std::thread reader([&] {
        while (!done) {
            recorder.getAllEventStatsByContext();
            recorder.getAllEventPoints();
        }
    });
    onThreads(4, [&](int) {
        for (int i = 0; i < 5000; ++i)
            const Scope scope{work_, {{"i", i}}};
    });
    done = true;
    clearer.join();
    reader.join();
    recorder.clearAllEventData();
    EXPECT_EQ(recorder.bytesInUse(), 0u);
    work_.stop(work_.start());
    EXPECT_THAT(recorder.getAllEvents(), SizeIs(1));
}

TEST_F(RecorderThreads, AreHeardBySeveralRecordersThatOverlap) {
    constexpr std::size_t count = 12;  // more than threads have places for
    std::vector<std::unique_ptr<InstrumentRecorder>> recorders;
    for (std::size_t i = 0; i < count; ++i) {
        recorders.push_back(std::make_unique<InstrumentRecorder>());
        listeners.add(*recorders.back());
        onThreads(2, [&](int) {
            for (int round = 0; round < 100; ++round)
                const Scope scope{work_};
        });
    }
    for (std::size_t i = 0; i < count; ++i)
        EXPECT_THAT(recorders[i]->getAllEvents(), SizeIs(200 * (count - i))) << i;
}

TEST_F(RecorderThreads, DoNotMixRecordersThatLieInTheSamePlace) {
    alignas(InstrumentRecorder) std::byte place[sizeof(InstrumentRecorder)];
    for (int i = 0; i < 10; ++i) {
        auto* recorder = std::construct_at(reinterpret_cast<InstrumentRecorder*>(place));
        EXPECT_THAT(recorder->getAllEvents(), IsEmpty());
        listeners.add(*recorder);
        work_.stop(work_.start());
        EXPECT_THAT(recorder->getAllEvents(), SizeIs(1));
        std::destroy_at(recorder);
    }
}

/// Clears a recorder from inside a callback.
class ClearingListener : public InstrumentListener {
  public:
    explicit ClearingListener(InstrumentRecorder& recorder) : recorder_(recorder) {}
    ~ClearingListener() override { listeners.remove(*this); }
    void onStart(const Opaque*, const EventContext&, EventId) override {
        recorder_.clearAllEventData();
    }
    void onStop(const Opaque*, const EventContext&, EventId) override {}
    void onInstant(const Opaque*, const EventContext&, EventId) override {}
    void onStartAt(const Opaque*, const EventContext&, EventId, std::int64_t) override {}
    void onStopAt(const Opaque*, const EventContext&, EventId, std::int64_t) override {}
    void onInstantAt(const Opaque*, const EventContext&, EventId, std::int64_t) override {}

  private:
    InstrumentRecorder& recorder_;
};

TEST_F(RecorderThreads, MayClearInsideACallback) {
    InstrumentRecorder recorder;
    const Listening listening(recorder);
    {
        ClearingListener clearing(recorder);
        const Listening alsoListening(clearing);
        onThreads(4, [&](int) {
            for (int i = 0; i < 500; ++i)
                work_.stop(work_.start());
        });
    }
    recorder.clearAllEventData();
    EXPECT_EQ(recorder.bytesInUse(), 0u);
}

}  // namespace
}  // namespace instrument
