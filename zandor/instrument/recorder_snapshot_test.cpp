// What a snapshot shows while threads go on recording.
#include "recorder_snapshot.hpp"

#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <set>

#include "testing/recorder_support.hpp"

namespace instrument {
namespace {

using test_support::Listening;
using test_support::onThreads;
using testing::SizeIs;
using EventPoint = InstrumentRecorder::EventPoint;

class RecorderSnapshot : public test_support::RecorderTest {
  protected:
    const Instrument work_{"work"};
    const Instrument step_{"step"};
};

/// Starts travel through a queue to whoever stops them.
class Baton {
  public:
    void put(const OpenEvent& event) {
        const std::lock_guard lock(mutex_);
        events_.push_back(event);
    }
    bool take(OpenEvent& event) {
        const std::lock_guard lock(mutex_);
        if (events_.empty())
            return false;
        event = events_.front();
        events_.pop_front();
        return true;
    }

  private:
    std::mutex mutex_;
    std::deque<OpenEvent> events_;
};

/// Whether a snapshot is what the test's threads may leave at one moment.
void checkSnapshot(const std::vector<EventPoint>& points) {
    std::set<std::pair<std::uint64_t, std::uint64_t>> begun;
    std::map<std::uint64_t, std::uint64_t> latest;
    for (const EventPoint& point : points) {
        if (point.type == EventPointType::stop)
            continue;
        begun.emplace(point.id.sourceId, point.id.serialId);
        ++latest[point.id.sourceId];
    }
    for (const EventPoint& point : points) {
        if (point.type != EventPointType::stop)
            continue;
        ASSERT_TRUE(begun.contains({point.id.sourceId, point.id.serialId}));
    }
    for (const auto& [source, count] : latest)  // a prefix: no serial is left out
        ASSERT_TRUE(begun.contains({source, count}));
}

TEST_F(RecorderSnapshot, ShowsNoStopWithoutItsStart) {
    InstrumentRecorder recorder;
    const Listening listening(recorder);
    Baton baton;
    std::atomic<int> running{4};
    std::thread reader([&] {
        while (running > 0)
            checkSnapshot(recorder.getAllEventPoints());
    });
    onThreads(4, [&](int) {
        for (int i = 0; i < 4000; ++i) {
            baton.put(work_.start());
            OpenEvent event;
            if (baton.take(event))
                work_.stop(event);
            step_.instant();
        }
        --running;
    });
    reader.join();
    for (OpenEvent event; baton.take(event);)
        work_.stop(event);
    EXPECT_THAT(recorder.getEvents("work"), SizeIs(16'000));
}

/// A thread that does one thing after another, and lives until the end.
class Worker {
  public:
    ~Worker() { thread_.join(); }
    void run(std::function<void()> task) {
        std::unique_lock lock(mutex_);
        task_ = std::move(task);
        changed_.notify_all();
        changed_.wait(lock, [&] { return !task_; });
    }
    void end() {
        run([&] { ending_ = true; });
    }

  private:
    void work() {
        std::unique_lock lock(mutex_);
        while (!ending_) {
            changed_.wait(lock, [&] { return task_ != nullptr; });
            task_();
            task_ = nullptr;
            changed_.notify_all();
        }
    }
    std::mutex mutex_;
    std::condition_variable changed_;
    std::function<void()> task_;
    bool ending_ = false;
    std::thread thread_{[this] { work(); }};
};

/// Runs something when a snapshot has looked at so many tracks.
class AtTrack {
  public:
    AtTrack(std::size_t count, std::function<void()> task) {
        count_ = count;
        task_ = std::move(task);
        detail::snapshotTookTracks = [](std::size_t taken) {
            if (taken == count_)
                task_();
        };
    }
    ~AtTrack() { detail::snapshotTookTracks = nullptr; }
    AtTrack(const AtTrack&) = delete;
    AtTrack& operator=(const AtTrack&) = delete;

  private:
    static inline std::size_t count_;
    static inline std::function<void()> task_;
};

TEST_F(RecorderSnapshot, ExtendsAPrefixThroughTheStartThatAStopElsewhereNeeds) {
    InstrumentRecorder recorder;
    const Listening listening(recorder);
    Worker stopper;
    Worker middle;
    Worker starter;
    // A snapshot looks at the newest track first: starter, middle, stopper.
    for (Worker* worker : {&stopper, &middle, &starter})
        worker->run([&] { step_.instant(); });
    std::vector<EventPoint> points;
    OpenEvent first;
    OpenEvent second;
    {
        const AtTrack between(2, [&] {
            starter.run([&] { first = work_.start(); });
            middle.run([&] {
                work_.stop(first);
                second = work_.start();
            });
            stopper.run([&] { work_.stop(second); });
            starter.run([&] { step_.instant(); });
            middle.run([&] { step_.instant(); });
        });
        points = recorder.getAllEventPoints();
    }
    ASSERT_THAT(points, SizeIs(7));
    EXPECT_EQ(points[3].id, first.id());
    EXPECT_EQ(points[3].type, EventPointType::start);
    EXPECT_EQ(points[4].id, first.id());
    EXPECT_EQ(points[5].id, second.id());
    EXPECT_EQ(points[6].id, second.id());
    EXPECT_EQ(points[6].type, EventPointType::stop);
    EXPECT_THAT(recorder.getAllEventPoints(), SizeIs(9));
    for (Worker* worker : {&stopper, &middle, &starter})
        worker->end();
}

TEST_F(RecorderSnapshot, TakesInAThreadThatBeganMeanwhileAsFarAsItNeeds) {
    InstrumentRecorder recorder;
    const Listening listening(recorder);
    Worker stopper;
    Worker bystander;
    Worker starter;
    for (Worker* worker : {&stopper, &bystander})
        worker->run([&] { step_.instant(); });
    {
        const AtTrack between(1, [&] {
            OpenEvent event;
            starter.run([&] { event = work_.start(); });
            stopper.run([&] { work_.stop(event); });
        });
        EXPECT_THAT(recorder.getAllEvents(), SizeIs(1));
    }
    for (Worker* worker : {&stopper, &bystander, &starter})
        worker->end();
}

TEST_F(RecorderSnapshot, ShowsOfEachThreadAPrefixOfWhatItDid) {
    // Each thread repeats instant, start, stop; so whatever a snapshot ends with tells what is
    // before.
    InstrumentRecorder recorder;
    const Listening listening(recorder);
    std::atomic<int> running{3};
    std::thread reader([&] {
        while (running > 0) {
            std::map<std::uint64_t, std::array<std::uint64_t, 3>> counts;
            for (const EventPoint& point : recorder.getAllEventPoints())
                ++counts[point.id.sourceId][static_cast<std::size_t>(point.type)];
            for (const auto& [source, count] : counts) {
                const auto [starts, stops, instants] = count;
                ASSERT_TRUE(instants == starts || instants == starts + 1);
                ASSERT_TRUE(stops == starts || stops + 1 == starts);
                ASSERT_TRUE(instants == starts || stops == starts);
            }
        }
    });
    onThreads(3, [&](int) {
        for (int i = 0; i < 10'000; ++i) {
            step_.instant();
            work_.stop(work_.start());
        }
        --running;
    });
    reader.join();
}

}  // namespace
}  // namespace instrument
