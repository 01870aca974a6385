#include "vantrace/instrument/events.hpp"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "vantrace/testing/events.hpp"

namespace {

using instrument::controls;
using instrument::EventId;
using vantrace::beginInstrumentEvent;
using vantrace::endInstrumentEvent;
using vantrace_testing::Context;
using vantrace_testing::Ear;
using vantrace_testing::WithCleanControls;
using Entries = std::vector<instrument::ContextEntry>;
using Kinds = std::vector<std::string>;

class HostEvents : public WithCleanControls {
  protected:
    static constexpr char name[] = "events_test";
    const instrument::Opaque* handle = controls.getHandle(name);
    const Entries cg = {{"method", "cg"}};
    const Entries lu = {{"method", "lu"}};

    EventId begin(const Entries& entries = {}) const {
        return beginInstrumentEvent(handle, entries, std::nullopt);
    }
    void end(EventId id, const Entries& entries = {}) const {
        endInstrumentEvent(handle, entries, id, std::nullopt);
    }
};

TEST_F(HostEvents, WithoutListenerHaveTheFirstReservedIdentity) {
    controls.enable(name);
    EXPECT_EQ(begin(cg), (EventId{0, 1}));
    end({0, 1}, cg);
}

TEST_F(HostEvents, OfADisabledInstrumentHaveTheSecondReservedIdentity) {
    const Ear ear;
    EXPECT_EQ(begin(), (EventId{0, 2}));
    EXPECT_TRUE(ear.heard().empty());
}

TEST_F(HostEvents, AreDeliveredWithTheirContext) {
    controls.enable(name);
    const Ear ear;
    const EventId id = begin({{"n", "3"}, {"method", "cg"}});
    end(id, {{"n", "3"}, {"method", "cg"}});
    ASSERT_EQ(ear.kinds(), (Kinds{"start", "stop"}));
    for (const auto& heard : ear.heard()) {
        EXPECT_EQ(heard.name, name);
        EXPECT_EQ(heard.context, (Context{{"n", "3"}, {"method", "cg"}}));
        EXPECT_EQ(heard.id, id);
    }
    EXPECT_NE(id.sourceId, 0u);
}

TEST_F(HostEvents, KeepOneEntryOfEachName) {
    controls.enable(name);
    const Ear ear;
    end(begin({{"n", "3"}, {"n", "4"}}), {{"n", "3"}, {"n", "4"}});
    ASSERT_EQ(ear.heard().size(), 2u);
    EXPECT_EQ(ear.heard()[0].context.size(), 1u);
    EXPECT_EQ(ear.heard()[1].context, (Context{{"n", "3"}}));
}

TEST_F(HostEvents, FollowTheRuleForTheirContext) {
    controls.enable(name, cg[0]);
    const Ear ear;
    end(begin(cg), cg);
    EXPECT_EQ(ear.kinds(), (Kinds{"start", "stop"}));
    EXPECT_EQ(begin(lu), (EventId{0, 2}));
}

TEST_F(HostEvents, AreOffByARuleThoughTheInstrumentIsOn) {
    controls.enable(name);
    controls.disable(name, cg[0]);
    const Ear ear;
    EXPECT_EQ(begin(cg), (EventId{0, 2}));
    EXPECT_NE(begin(lu).sourceId, 0u) << "without a matching rule the switch decides";
}

TEST_F(HostEvents, WithEmptyContextFollowTheSwitchWhateverTheRules) {
    controls.enable(name, cg[0]);
    const Ear ear;
    EXPECT_EQ(begin(), (EventId{0, 2}));
    controls.enable(name);
    controls.disable(name, cg[0]);
    EXPECT_NE(begin().sourceId, 0u);
}

TEST_F(HostEvents, SwitchedOffMeanwhileHaveAStartWithoutStop) {
    controls.enable(name);
    const Ear ear;
    const EventId id = begin();
    controls.disable(name);
    end(id);
    EXPECT_EQ(ear.kinds(), Kinds{"start"});
}

TEST_F(HostEvents, SwitchedOnMeanwhileHaveAStopOfTheReservedIdentity) {
    const Ear ear;
    const EventId id = begin();
    controls.enable(name);
    end(id);
    ASSERT_EQ(ear.kinds(), Kinds{"stop"});
    EXPECT_EQ(ear.heard()[0].id, (EventId{0, 2}));
}

TEST_F(HostEvents, PassTheListenersExceptionOn) {
    controls.enable(name);
    Ear ear;
    ear.reaction = [] { throw std::runtime_error("deaf"); };
    EXPECT_THROW(begin(cg), std::runtime_error);
    EXPECT_THROW(end({1, 1}, cg), std::runtime_error);
}

TEST_F(HostEvents, CarryTheTagOfTheirVirtualMachine) {
    controls.enable(name);
    const Ear ear;
    const EventId blessed = begin();
    const EventId tagged = beginInstrumentEvent(handle, {}, 77);
    EXPECT_NE(tagged.sourceId, blessed.sourceId);
    EXPECT_EQ(beginInstrumentEvent(handle, {}, 77).sourceId, tagged.sourceId);
}

}  // namespace
