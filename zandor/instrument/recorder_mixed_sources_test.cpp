// One thread that tells of events of several sources, as it does of other processes', to recorders
// that are full.
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <map>
#include <string>

#include "zandor/instrument/source.hpp"
#include "zandor/instrument/testing/recorder_support.hpp"

namespace instrument {
namespace {

using test_support::Listening;

/// Events of three sources in turn; how long each takes follows from when it starts.
class MixedSources : public test_support::RecorderTest, public testing::WithParamInterface<Keep> {
  protected:
    static constexpr std::int64_t longest = 1'000'000;

    static std::int64_t durationAt(std::int64_t start) {
        return start % 10'100 == 0 ? longest : start / 101 % 97;
    }
    EventId nextOf(std::size_t source) { return {sources_[source], ++serials_[source]}; }
    void start(EventId id, std::int64_t time) { listeners.onEventStartAt(handle_, {}, id, time); }
    void stop(EventId id, std::int64_t start) {
        listeners.onEventStopAt(handle_, {}, id, start + durationAt(start));
    }
    /// So many pairs of events that overlap; their source changes now and then.
    void emit(std::int64_t pairs) {
        for (std::int64_t i = 0; i < pairs; ++i) {
            const std::size_t source = static_cast<std::size_t>(i / (1 + i % 5)) % 3;
            const EventId outer = nextOf(source);
            const EventId inner = nextOf(source);
            const std::int64_t time = 2 * i * 101;
            start(outer, time);
            start(inner, time + 101);
            stop(outer, time);
            stop(inner, time + 101);
        }
    }

    const std::array<std::uint64_t, 3> sources_{addExternalSource("", "source 0", 1, 1),
                                                addExternalSource("", "source 1", 1, 2),
                                                addExternalSource("", "source 2", 1, 3)};
    std::array<std::uint64_t, 3> serials_{};
    const Opaque* const handle_ = controls.getHandle("mixed");
};

TEST_P(MixedSources, AreToldApartWhateverGivesWay) {
    InstrumentRecorder recorder({.maxBytes = 1 << 20, .keep = GetParam()});
    const Listening listening(recorder);
    constexpr std::int64_t pairs = 100'000;
    emit(pairs);
    const auto events = recorder.getAllEvents();
    const RecorderDrops drops = recorder.drops();
    EXPECT_GT(drops.total(), 0u);
    EXPECT_EQ(events.size() + drops.total(), 2u * pairs);
    std::map<std::pair<std::uint64_t, std::uint64_t>, int> seen;
    std::int64_t longOnes = 0;
    for (const auto& event : events) {
        ASSERT_EQ(event.duration(), durationAt(event.startTimePoint)) << event.startTimePoint;
        ASSERT_EQ(event.id.sourceId - sources_[0],
                  static_cast<std::uint64_t>(event.sourceName().back() - '0'));
        ASSERT_EQ(++seen[std::pair(event.id.sourceId, event.id.serialId)], 1);
        longOnes += event.duration() == longest;
    }
    if (GetParam() == Keep::longest) {
        EXPECT_EQ(longOnes, 2 * pairs / 100);
    }
}

std::string nameOf(const testing::TestParamInfo<Keep>& tested) {
    return tested.param == Keep::first ? "First" : tested.param == Keep::last ? "Last" : "Longest";
}

INSTANTIATE_TEST_SUITE_P(Keeping, MixedSources,
                         testing::Values(Keep::first, Keep::last, Keep::longest), nameOf);

}  // namespace
}  // namespace instrument
