// Full recorders: every event is recorded or counted, memory keeps to its bound, and what was full
// records again.
#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <map>

#include "memory_support.hpp"
#include "soak_support.hpp"
#include "zandor/instrument/exports.hpp"
#include "zandor/instrument/testing/json_reader.hpp"
#include "zandor/instrument/testing/recorder_support.hpp"
#include "zandor/runtime/sanitizers.hpp"

namespace instrument {
namespace {

using memory_tests::residentBytes;
using test_support::Json;
using test_support::Listening;
using test_support::onThreads;
using testing::SizeIs;

constexpr std::size_t mebi = 1024 * 1024;
constexpr int threads = 8;
constexpr Keep ways[] = {Keep::first, Keep::last, Keep::longest};

class FullRecorder : public Counted<test_support::RecorderTest> {
  protected:
    const Instrument work_{"work"};
    const Instrument step_{"step"};
};

/// Starts and instants that a recorder holds, by source.
std::map<std::uint64_t, std::uint64_t> recordedBySource(const InstrumentRecorder& recorder) {
    std::map<std::uint64_t, std::uint64_t> recorded;
    for (const auto& point : recorder.getAllEventPoints())
        recorded[point.id.sourceId] += point.type != EventPointType::stop;
    return recorded;
}

std::uint64_t droppedByExport(const InstrumentRecorder& recorder) {
    const std::string text = getAllCompleteEventsTraceEventJson(recorder, TimeSystem::monotonic,
                                                                std::chrono::nanoseconds(-1));
    const Json document = test_support::JsonReader::read(text);
    std::uint64_t sum = 0;
    for (const char* cause : {"refused", "oldest", "shortest", "failed"})
        sum += std::stoull(document["metadata"][std::string("dropped_") + cause].text);
    return sum;
}

TEST_P(FullRecorder, AccountsForEachThreadsEventsAndTheExportSaysWhatIsLost) {
    for (const Keep keep : ways) {
        InstrumentRecorder recorder({.maxBytes = 4 * mebi, .keep = keep});
        const Listening listening(recorder);
        std::array<std::uint64_t, threads> sources{};
        onThreads(threads, [&](int thread) {
            const auto first = work_.start();
            sources[static_cast<std::size_t>(thread)] = first.id().sourceId;
            work_.stop(first);
            for (int i = 1; i < count(); ++i) {
                const Scope outer{work_, {{"i", i}}};
                step_.instant();
            }
        });
        const auto emitted = 2 * static_cast<std::uint64_t>(count()) - 1;
        auto recorded = recordedBySource(recorder);
        std::uint64_t lost = 0;
        for (const std::uint64_t source : sources) {
            EXPECT_LE(recorded[source], emitted);
            lost += emitted - recorded[source];
        }
        EXPECT_THAT(recorded, SizeIs(threads));
        EXPECT_EQ(lost, recorder.drops().total());
        EXPECT_GT(lost, 0u);
        EXPECT_EQ(droppedByExport(recorder), lost);
    }
}

TEST_P(FullRecorder, RecordsAgainWhenItIsStoppedClearedAndStarted) {
    for (const Keep keep : ways) {
        InstrumentRecorder recorder({.maxBytes = mebi, .keep = keep});
        for (int round = 0; round < countOver(40'000); ++round) {
            listeners.add(recorder);
            while (recorder.drops().total() == 0)
                const Scope scope{work_};
            listeners.remove(recorder);
            recorder.clearAllEventData();
            listeners.add(recorder);
            for (int i = 0; i < 100; ++i)
                const Scope scope{step_};
            listeners.remove(recorder);
            ASSERT_THAT(recorder.getAllEvents(), SizeIs(100)) << "round " << round;
            ASSERT_EQ(recorder.drops().total(), 0u);
            recorder.clearAllEventData();
        }
    }
}

TEST_P(FullRecorder, CountsWhatItRefusesWhenItIsStartedWithoutBeingCleared) {
    InstrumentRecorder recorder({.maxBytes = mebi});
    {
        const Listening listening(recorder);
        while (recorder.drops().refused < 1000)
            const Scope scope{work_};
    }
    const std::uint64_t before = recorder.drops().refused;
    const Listening again(recorder);
    for (int i = 0; i < count(); ++i)
        const Scope scope{step_};
    EXPECT_EQ(recorder.drops().refused - before + recorder.getEvents("step").size(),
              static_cast<std::uint64_t>(count()));
}

#if !ZANDOR_SANITIZED  // which keep memory of their own

/// The most that the process had while eight threads emitted, beyond what it had before.
std::size_t growthWhile(const std::function<void()>& emit, int rounds) {
    std::atomic<std::size_t> most{0};
    const std::size_t before = residentBytes();
    onThreads(threads, [&](int) {
        for (int i = 0; i < rounds; ++i) {
            emit();
            if (i % 4096 != 0)
                continue;
            const std::size_t now = residentBytes();
            for (std::size_t known = most; now > known && !most.compare_exchange_weak(known, now);)
                continue;
        }
    });
    return std::max<std::size_t>(most, before) - before;
}

TEST_P(FullRecorder, KeepsToItsBoundAtFullRateAndGivesTheMemoryBack) {
    constexpr std::size_t bound = 64 * mebi;
    constexpr std::size_t twentieth = bound / 20;
    const auto emit = [&] { const Scope scope{work_, {{"n", 1}, {"text", "some text"}}}; };
    growthWhile(emit, 10'000);  // threads and names have what they need for good
    for (const Keep keep : ways) {
        InstrumentRecorder recorder({.maxBytes = bound, .keep = keep});
        const std::size_t before = residentBytes();
        {
            const Listening listening(recorder);
            EXPECT_LE(growthWhile(emit, count()), bound + twentieth) << static_cast<int>(keep);
        }
        EXPECT_GT(recorder.drops().total(), 0u) << static_cast<int>(keep);
        recorder.clearAllEventData();
        EXPECT_LE(residentBytes(), before + twentieth) << static_cast<int>(keep);
    }
}

#endif

SHORT_AND_SOAK(FullRecorder, 200'000, 4'000'000);

}  // namespace
}  // namespace instrument
