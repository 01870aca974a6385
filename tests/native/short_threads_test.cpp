// Threads that come and go: none leaves anything behind, and none is lost or mixed up.
#include <gmock/gmock.h>
#include <pthread.h>

#include <map>
#include <set>
#include <string>

#include "memory_support.hpp"
#include "soak_support.hpp"
#include "zandor/instrument/exports.hpp"
#include "zandor/instrument/source.hpp"
#include "zandor/instrument/testing/json_reader.hpp"
#include "zandor/instrument/testing/recorder_support.hpp"
#include "zandor/instrument/thread_state.hpp"
#include "zandor/runtime/sanitizers.hpp"

namespace instrument {
namespace {

using memory_tests::allocatedBytes;
using memory_tests::residentBytes;
using test_support::Json;
using test_support::Listening;

constexpr std::size_t mebi = 1024 * 1024;

class ShortThreads : public Counted<test_support::RecorderTest> {
  protected:
    static void inThreads(int threads, const std::function<void()>& work) {
        for (int i = 0; i < threads; ++i)
            std::thread(work).join();
    }
    const Instrument work_{"work"};
    const Instrument off_{"short threads.off"};
};

#if !ZANDOR_SANITIZED  // which keep memory of their own

TEST_P(ShortThreads, ThatMeetADisabledInstrumentAllocateNothingThatStays) {
    controls.enableAll(false);
    InstrumentRecorder recorder;
    const Listening listening(recorder);
    const auto touch = [&] {
        Scope scope{off_, {{"n", 1}}};
        off_.instant();
        off_.stop(off_.start());
    };
    inThreads(100, touch);
    const auto states = detail::threadStateCounts();
    const std::size_t allocated = allocatedBytes();
    const std::size_t resident = residentBytes();
    inThreads(count(), touch);
    EXPECT_EQ(allocatedBytes(), allocated);
    EXPECT_LT(residentBytes(), resident + mebi / 4);
    EXPECT_EQ(detail::threadStateCounts().made, states.made);
    EXPECT_EQ(recorder.bytesInUse(), 0u);
}

TEST_P(ShortThreads, ThatEmitKeepToTheRecordersBound) {
    InstrumentRecorder recorder({.maxBytes = 4 * mebi, .keep = Keep::last});
    const Listening listening(recorder);
    const auto emit = [&] { Scope scope{work_, {{"n", 1}}}; };
    inThreads(100, emit);
    const std::size_t resident = residentBytes();
    const std::size_t inUse = detail::threadStateCounts().inUse;
    inThreads(count(), emit);
    EXPECT_LE(recorder.bytesInUse(), 4 * mebi + mebi / 5);
    EXPECT_EQ(detail::threadStateCounts().inUse, inUse);
    // The bound, and the names of those threads whose events are kept.
    EXPECT_LT(residentBytes(), resident + 16 * mebi);
}

#endif

struct EmitsAtTheEnd {
    ~EmitsAtTheEnd() { Instrument("at the end").instant(); }
};

TEST_P(ShortThreads, AreInTheNextSnapshotWithWhatTheirDestructorsEmitted) {
    InstrumentRecorder recorder({.maxBytes = 256 * mebi});
    const Listening listening(recorder);
    const int rounds = countOver(10);
    for (int i = 1; i <= rounds; ++i) {
        std::thread([&] {
            thread_local EmitsAtTheEnd atEnd;
            static_cast<void>(&atEnd);
            const Scope scope{work_};
        }).join();
        if (i % 100 == 0) {
            ASSERT_EQ(recorder.getEventStats("work").count, i);
            ASSERT_EQ(recorder.getEventPoints("at the end").size(), static_cast<std::size_t>(i));
        }
    }
}

TEST_P(ShortThreads, OfTheSameSystemIdAndOtherNamesAreTracksOfTheirOwn) {
    InstrumentRecorder recorder;
    const Listening listening(recorder);
    std::set<pthread_t> ids;
    const int rounds = countOver(100);
    for (int i = 0; i < rounds; ++i)
        std::thread([&, i] {
            ids.insert(pthread_self());
            setThreadName("worker " + std::to_string(i));
            const Scope scope{work_, {{"i", i}}};
        }).join();
    ASSERT_LT(ids.size(), static_cast<std::size_t>(rounds)) << "no id was used again";

    const Json document = test_support::JsonReader::read(getAllCompleteEventsTraceEventJson(
        recorder, TimeSystem::monotonic, std::chrono::nanoseconds(-1)));
    std::map<std::string, std::string> nameOfTrack;
    int checked = 0;
    for (const Json& event : document["traceEvents"].elements) {
        if (event["name"].text == "thread_name") {
            EXPECT_TRUE(nameOfTrack.emplace(event["tid"].text, event["args"]["name"].text).second);
        }
        if (event["ph"].text == "X") {
            EXPECT_EQ(nameOfTrack[event["tid"].text], "worker " + event["args"]["i"].text);
            ++checked;
        }
    }
    EXPECT_EQ(checked, rounds);
}

SHORT_AND_SOAK(ShortThreads, 20'000, 200'000);

}  // namespace
}  // namespace instrument
