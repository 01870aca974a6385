// Events with numbers under lasting names: as those with any other context, by the lane or not.
#include "zandor/instrument/number_events.hpp"

#include <gmock/gmock.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "zandor/instrument/decided_events.hpp"
#include "zandor/instrument/testing/event_log.hpp"
#include "zandor/instrument/testing/recorder_support.hpp"

namespace instrument {
namespace {

using test_support::EventLog;
using test_support::HandlerListener;
using test_support::Listening;
using test_support::textOf;
using testing::Each;
using testing::ElementsAre;
using testing::Eq;
using testing::SizeIs;

class NumberEvents : public test_support::RecorderTest {
  protected:
    /// By the general way first, which makes the lane, and then by the lane.
    void makePairs(ContextArgs numbers, int count = 3) const {
        for (int i = 0; i < count; ++i)
            tellStop(handle_, numbers, startNumbers(handle_, numbers));
    }
    std::vector<std::string> recordedContexts() const {
        std::vector<std::string> texts;
        for (const auto& event : recorder_.getAllEvents())
            texts.push_back(textOf(event.context));
        return texts;
    }

    const Opaque* const handle_ = Instrument("numbers").handle();
    const std::string_view n_ = lastingName("n");
    const std::string_view tol_ = lastingName("tol");
    InstrumentRecorder recorder_;
};

TEST_F(NumberEvents, HaveLastingNamesOfTheLibrarysOwn) {
    const std::string given = "n";
    EXPECT_EQ(lastingName(given), given);
    EXPECT_EQ(lastingName(given).data(), n_.data());
}

TEST_F(NumberEvents, AreRecordedWithTheirContextsAndStops) {
    const Listening listening(recorder_);
    makePairs(std::vector<ContextArg>{{n_, -3}, {tol_, 2.5}});
    EXPECT_THAT(recordedContexts(), ElementsAre("n=-3 tol=2.5", "n=-3 tol=2.5", "n=-3 tol=2.5"));
    EXPECT_THAT(recorder_.getAllEventPoints(), SizeIs(6));
}

TEST_F(NumberEvents, HaveNumbersOfEachKind) {
    const Listening listening(recorder_);
    makePairs(std::vector<ContextArg>{{n_, true}}, 2);
    makePairs(std::vector<ContextArg>{{n_, ~std::uint64_t{0}}}, 1);
    EXPECT_THAT(recordedContexts(), ElementsAre("n=true", "n=true", "n=18446744073709551615"));
}

TEST_F(NumberEvents, MayHaveAsManyNumbersAsThereCanBe) {
    const Listening listening(recorder_);
    std::vector<ContextArg> numbers;
    for (const char* name : {"a", "b", "c", "d"})
        numbers.push_back({lastingName(name), 1});
    ASSERT_EQ(numbers.size(), mostNumbers);
    makePairs(numbers);
    EXPECT_THAT(recordedContexts(), Each(Eq("a=1 b=1 c=1 d=1")));
}

TEST_F(NumberEvents, MayBeInstants) {
    const Listening listening(recorder_);
    const std::vector<ContextArg> numbers{{n_, 7}};
    for (int i = 0; i < 3; ++i)
        instantNumbers(handle_, numbers);
    const auto points = recorder_.getAllEventPoints();
    ASSERT_THAT(points, SizeIs(3));
    for (const auto& point : points) {
        EXPECT_EQ(point.type, EventPointType::instant);
        EXPECT_EQ(textOf(point.context), "n=7");
    }
}

TEST_F(NumberEvents, ReachListenersOfTheGeneralWay) {
    const Listening listening(recorder_);
    const std::vector<ContextArg> numbers{{n_, 7}};
    makePairs(numbers);
    EventLog log;
    const Listening both(log);
    makePairs(numbers, 1);
    instantNumbers(handle_, numbers);
    EXPECT_EQ(log.story(), "start numbers [n=7], stop numbers [n=7], instant numbers [n=7]");
}

TEST_F(NumberEvents, HaveListenersExceptionsComeOut) {
    const Listening listening(recorder_);
    const std::vector<ContextArg> numbers{{n_, 7}};
    makePairs(numbers);
    HandlerListener refusing([](auto&&...) { throw std::runtime_error("refused"); });
    const Listening both(refusing);
    EXPECT_THROW(startNumbers(handle_, numbers), std::runtime_error);
    EXPECT_THROW(instantNumbers(handle_, numbers), std::runtime_error);
}

}  // namespace
}  // namespace instrument
