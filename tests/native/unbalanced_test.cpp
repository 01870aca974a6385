// Events whose pairs are broken in every way: switched on and off in mid-scope, stopped twice or
// elsewhere or not at all, with snapshots in between. Exports stay valid, and totals leave out what
// is open.
#include <gmock/gmock.h>

#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "soak_support.hpp"
#include "zandor/instrument/exports.hpp"
#include "zandor/instrument/testing/json_reader.hpp"
#include "zandor/instrument/testing/recorder_support.hpp"
#include "zandor/instrument/testing/trace_rules.hpp"

namespace instrument {
namespace {

using test_support::Listening;
using testing::IsEmpty;

/// Plays steps at random and keeps what the recorder must have.
class Play {
  public:
    explicit Play(unsigned seed) : random_(seed) {}

    void step() {
        switch (random_() % 10) {
            case 0:
                controls.enable(name());
                break;
            case 1:
                controls.disable(name());
                break;
            case 2:
                listens_ ? listeners.remove(recorder_) : listeners.add(recorder_);
                listens_ = !listens_;
                break;
            case 3:
            case 4:
                start();
                break;
            case 5:
            case 6:
                stop(false);
                break;
            case 7:
                stop(true);
                break;
            case 8:
                stopped_.empty() ? start() : stopAgain();
                break;
            default:
                check();
        }
    }
    void finish() {
        check();
        listeners.remove(recorder_);
    }

  private:
    struct ById {
        bool operator()(EventId a, EventId b) const {
            return std::pair(a.sourceId, a.serialId) < std::pair(b.sourceId, b.serialId);
        }
    };
    struct Open {
        Instrument instrument;
        OpenEvent event;
    };

    std::string name() { return "event " + std::to_string(random_() % 3); }

    void start() {
        const Instrument instrument{name()};
        const bool delivered = listens_ && controls.isEnabled(instrument.name());
        open_.push_back({instrument, instrument.start({{"n", random_() % 5}})});
        ASSERT_EQ(open_.back().event.id().sourceId != 0, delivered);
        if (delivered)
            begun_.insert(open_.back().event.id());
    }
    void stop(bool elsewhere) {
        if (open_.empty())
            return;
        const auto which = open_.begin() + static_cast<std::ptrdiff_t>(random_() % open_.size());
        const Open one = *which;
        open_.erase(which);
        const auto work = [&] { one.instrument.stop(one.event); };
        elsewhere ? std::thread(work).join() : work();
        if (one.event.id().sourceId == 0)
            return;
        if (listens_)
            ++complete_[one.instrument.name()];
        // A second stop counts only where the first was not heard.
        stopped_.push_back({one, listens_});
    }
    void stopAgain() {
        auto& [one, heard] = stopped_[random_() % stopped_.size()];
        one.instrument.stop(one.event);
        if (listens_ && !heard) {
            ++complete_[one.instrument.name()];
            heard = true;
        }
    }
    void check() {
        std::map<std::string, std::int64_t> counted;
        for (const auto& stats : recorder_.getAllEventStats())
            counted[std::string(stats.name)] = stats.count;
        EXPECT_EQ(counted, complete_);
        std::set<EventId, ById> shown;
        for (const auto& point : recorder_.getAllEventPoints())
            if (point.type == EventPointType::start) {
                EXPECT_TRUE(shown.insert(point.id).second);
            }
        EXPECT_EQ(shown, begun_);
        const std::string text = getAllCompleteEventsTraceEventJson(
            recorder_, TimeSystem::monotonic, std::chrono::nanoseconds(-1));
        EXPECT_THAT(test_support::TraceRules::violations(test_support::JsonReader::read(text)),
                    IsEmpty());
    }

    std::mt19937 random_;
    InstrumentRecorder recorder_;
    bool listens_ = false;
    std::vector<Open> open_;
    std::vector<std::pair<Open, bool>> stopped_;
    std::map<std::string, std::int64_t> complete_;
    std::set<EventId, ById> begun_;
};

class UnbalancedPairs : public Counted<testing::Test> {
  protected:
    void SetUp() override { controls.disableAll(); }
    void TearDown() override { controls.disableAll(); }
};

TEST_P(UnbalancedPairs, LeaveExportsValidAndTotalsToWhatEnded) {
    for (unsigned seed = 0; seed < static_cast<unsigned>(count()) && !HasFailure(); ++seed) {
        controls.disableAll();
        Play play(seed);
        for (int i = 0; i < 120; ++i)
            play.step();
        play.finish();
        EXPECT_FALSE(HasFailure()) << "seed " << seed;
    }
}

SHORT_AND_SOAK(UnbalancedPairs, 100, 20'000);

}  // namespace
}  // namespace instrument
