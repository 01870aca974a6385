// Forks at full rate, with every listener that we have: a child has its own process id, none of its
// parent's events, and waits for nobody.
#include <atomic>
#include <set>
#include <string>
#include <vector>

#include "process_support.hpp"
#include "soak_support.hpp"
#include "zandor/instrument/exports.hpp"
#include "zandor/instrument/testing/json_reader.hpp"
#include "zandor/instrument/testing/recorder_support.hpp"
#include "zandor/performance/counter.hpp"
#include "zandor/performance/profiler.hpp"

namespace instrument {
namespace {

using process_tests::Child;
using test_support::Json;
using test_support::Listening;

class Forks : public Counted<test_support::RecorderTest> {
  protected:
    const Instrument parents_{"parent's"};
    const Instrument childs_{"child's"};
};

/// The process ids and the names of lasting events in an export.
std::pair<std::set<std::string>, std::multiset<std::string>> exported(
    const InstrumentRecorder& recorder) {
    const Json document = test_support::JsonReader::read(getAllCompleteEventsTraceEventJson(
        recorder, TimeSystem::monotonic, std::chrono::nanoseconds(-1)));
    std::pair<std::set<std::string>, std::multiset<std::string>> found;
    for (const Json& event : document["traceEvents"].elements) {
        if (event["name"].text == "process_name")
            found.first.insert(event["args"]["pid"].text);
        if (event["ph"].text == "X")
            found.second.insert(event["name"].text);
    }
    return found;
}

TEST_P(Forks, WhileEightThreadsEmitGiveChildrenThatLiveAndHaveTheirOwnEventsOnly) {
    InstrumentRecorder recorder({.maxBytes = 1024 * 1024, .keep = Keep::last});
    InstrumentCounter counter;
    InstrumentProfiler profiler;
    const Listening listening[] = {Listening(recorder), Listening(counter), Listening(profiler)};
    std::atomic<bool> done{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&, i] {
            while (!done) {
                const Scope outer{parents_, {{"thread", i}, {"text", "some text"}}};
                parents_.instant();
            }
        });
    const auto check = [&] {
        alarm(60);  // whoever waits for a lock that nobody holds is ended
        { const Scope scope{childs_, {{"in the child", 1}}}; }
        const auto [processes, names] = exported(recorder);
        const bool own = processes == std::set{std::to_string(getpid())} &&
                         names == std::multiset<std::string>{"child's"};
        const bool counted =
            counter.getEventCount("child's").count == 1 && counter.getAllEventCounts().size() == 1;
        const auto profile = profiler.getSummary();
        _exit(own && counted && profile.size() == 1 && profile[0].calls == 1 ? 0 : 1);
    };
    int sound = 0;
    for (int i = 0; i < count(); ++i)
        sound += Child(check).wait() == 0;
    done = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(sound, count());
}

SHORT_AND_SOAK(Forks, 100, 10'000);

}  // namespace
}  // namespace instrument
