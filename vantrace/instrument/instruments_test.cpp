// The methods of the namespace "instruments", called as the host's users do.
#include <gtest/gtest.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "vantrace/testing/events.hpp"
#include "vantrace/testing/published.hpp"
#include "zandor/runtime/context.hpp"

namespace {

using instrument::controls;
using instrument::EventId;
using vantrace_testing::Context;
using vantrace_testing::Ear;
using vantrace_testing::fieldsOf;
using vantrace_testing::numberIn;
using vantrace_testing::Shape;
using vantrace_testing::shapeOf;
using vantrace_testing::text;
using vantrace_testing::texts;
using Strings = std::vector<std::string>;
using zandor::Value;

constexpr char name[] = "instruments_test";

Value start(Value list) {
    return vantrace_testing::call("instrument.instruments.startEvent", text(name), std::move(list));
}

EventId idIn(const Value& event) {
    return {numberIn<std::uint64_t>(event.asArray(), 0, "sourceId"),
            numberIn<std::uint64_t>(event.asArray(), 0, "serialId")};
}

void stop(Value list, EventId id) {
    vantrace_testing::call("instrument.instruments.stopEvent", text(name), std::move(list),
                           Value::unsignedInteger(id.sourceId),
                           Value::unsignedInteger(id.serialId));
}

class PublishedInstruments : public vantrace_testing::WithCleanControls {};

TEST_F(PublishedInstruments, StartAnEventAndGiveItsIdentityAsAStruct) {
    controls.enable(name);
    const Ear ear;
    const Value event = start(texts({"n", "3"}));
    EXPECT_EQ(shapeOf(event.asArray()), Shape(1, 1));
    EXPECT_EQ(fieldsOf(event.asArray()), (Strings{"sourceId", "serialId"}));
    for (const char* field : {"sourceId", "serialId"}) {
        const hxArray* number = matrix::hx::hxGetField(event.asArray(), 0, field);
        EXPECT_EQ(matrix::hx::hxGetClassId(number), matrix::ClassId::uint64);
        EXPECT_EQ(shapeOf(number), Shape(1, 1));
    }
    ASSERT_EQ(ear.kinds(), Strings{"start"});
    EXPECT_EQ(ear.heard()[0].id, idIn(event));
    EXPECT_EQ(ear.heard()[0].name, name);
    EXPECT_EQ(ear.heard()[0].context, (Context{{"n", "3"}}));
}

TEST_F(PublishedInstruments, StopTheEventOfAnIdentity) {
    controls.enable(name);
    const Ear ear;
    const EventId id = idIn(start(texts({"n", "3"})));
    stop(texts({"n", "3"}), id);
    ASSERT_EQ(ear.kinds(), (Strings{"start", "stop"}));
    EXPECT_EQ(ear.heard()[1].id, id);
    EXPECT_EQ(ear.heard()[1].context, (Context{{"n", "3"}}));
}

TEST_F(PublishedInstruments, WithoutListenerGiveTheFirstReservedIdentity) {
    controls.enable(name);
    EXPECT_EQ(idIn(start(texts({}))), (EventId{0, 1}));
    stop(texts({}), {0, 1});
}

TEST_F(PublishedInstruments, GiveTheSecondReservedIdentityWhenTheyAreOff) {
    const Ear ear;
    EXPECT_EQ(idIn(start(texts({}))), (EventId{0, 2}));
    EXPECT_TRUE(ear.heard().empty());
}

TEST_F(PublishedInstruments, StartWithAnEmptyContextForAnEmptyListAndForNone) {
    controls.enable(name);
    const Ear ear;
    start(texts({}));
    start(Value());
    ASSERT_EQ(ear.kinds(), (Strings{"start", "start"}));
    EXPECT_TRUE(ear.heard()[0].context.empty());
    EXPECT_TRUE(ear.heard()[1].context.empty());
}

TEST_F(PublishedInstruments, RefuseAnOddListBeforeAnyEvent) {
    controls.enable(name);
    const Ear ear;
    for (const auto& attempt : {+[] {
                                    start(texts({"n", "3", "m"}));
                                },
                                +[] {
                                    stop(texts({"n"}), {1, 1});
                                }}) {
        try {
            attempt();
            ADD_FAILURE() << "the list was taken";
        } catch (const std::invalid_argument& error) {
            EXPECT_STREQ(error.what(), "makeContextEntries takes name/value pairs of strings.");
        }
    }
    EXPECT_TRUE(ear.heard().empty());
}

TEST_F(PublishedInstruments, StopAnIdentityThatNobodyGave) {
    controls.enable(name);
    const Ear ear;
    stop(texts({}), {123, 456});
    ASSERT_EQ(ear.kinds(), Strings{"stop"});
    EXPECT_EQ(ear.heard()[0].id, (EventId{123, 456}));
}

TEST_F(PublishedInstruments, RefuseANegativeIdentityAndADouble) {
    const zandor::Method stopEvent = vantrace_testing::method("instrument.instruments.stopEvent");
    EXPECT_THROW(stopEvent(text(name), texts({}), Value::integer(-1), Value::integer(1)),
                 zandor::ArgumentRangeError);
    EXPECT_THROW(stopEvent(text(name), texts({}), Value::real(1.5), Value::integer(1)),
                 zandor::ArgumentError);
}

TEST_F(PublishedInstruments, TellVirtualMachinesApart) {
    controls.enable(name);
    const Ear ear;
    const EventId blessed = idIn(start(texts({})));
    const zdutil::contextmgr::ScopedContext other(zdutil::contextmgr::ContextRegistry::create());
    const EventId elsewhere = idIn(start(texts({})));
    EXPECT_NE(elsewhere.sourceId, blessed.sourceId);
}

TEST_F(PublishedInstruments, RefuseANameWithANulInside) {
    const zandor::Method startEvent = vantrace_testing::method("instrument.instruments.startEvent");
    EXPECT_THROW(startEvent(text(std::string_view("a\0b", 3)), texts({})), std::invalid_argument);
}

}  // namespace
