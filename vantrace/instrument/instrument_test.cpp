// The methods of the namespace "instrument" itself, called as the host's users do.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <string>
#include <vector>

#include "vantrace/testing/events.hpp"
#include "vantrace/testing/published.hpp"

namespace {

using instrument::controls;
using vantrace_testing::Ear;
using Kinds = std::vector<std::string>;

constexpr char name[] = "InstrumentPackage::testAPI_addSomethingToInstrumentation";

void add(double seconds) {
    vantrace_testing::call("instrument.testAPI_addSomethingToInstrumentation",
                           zandor::Value::real(seconds));
}

bool areAnyListenersActive() {
    return vantrace_testing::call("instrument.areAnyListenersActive").asLogical();
}

class InstrumentRoot : public vantrace_testing::WithCleanControls {
  protected:
    InstrumentRoot() { controls.enable(name); }
};

TEST_F(InstrumentRoot, ZeroSecondsAreAnInstant) {
    const Ear ear;
    add(0.0);
    add(-0.0);
    ASSERT_EQ(ear.kinds(), (Kinds{"instant", "instant"}));
    EXPECT_EQ(ear.heard()[0].name, name);
    EXPECT_TRUE(ear.heard()[0].context.empty());
}

TEST_F(InstrumentRoot, OtherSecondsAreAStartAndAStopOfOneEvent) {
    for (const double seconds : {1e-12, -1.0, std::nan(""), 1e300, 0.001}) {
        const Ear ear;
        add(seconds);
        ASSERT_EQ(ear.kinds(), (Kinds{"start", "stop"})) << seconds;
        EXPECT_EQ(ear.heard()[0].name, name);
        EXPECT_EQ(ear.heard()[0].id, ear.heard()[1].id);
        EXPECT_TRUE(ear.heard()[0].context.empty());
    }
}

TEST_F(InstrumentRoot, KeepsBusyForTheSecondsEvenWithoutListener) {
    const auto before = std::chrono::steady_clock::now();
    add(0.02);
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(20));
}

TEST_F(InstrumentRoot, ProducesNothingWhileTheInstrumentIsOff) {
    controls.disable(name);
    const Ear ear;
    add(0);
    add(1e-9);
    EXPECT_TRUE(ear.heard().empty());
}

TEST_F(InstrumentRoot, AsksNoContextRules) {
    controls.disable(name, {"n", "3"});
    const Ear ear;
    add(1e-9);
    EXPECT_EQ(ear.kinds(), (Kinds{"start", "stop"}));
}

TEST_F(InstrumentRoot, SaysWhetherAnybodyListens) {
    EXPECT_FALSE(areAnyListenersActive());
    vantrace_testing::call("instrument.recorder.start");
    EXPECT_TRUE(areAnyListenersActive());
    vantrace_testing::call("instrument.recorder.stop");
    EXPECT_FALSE(areAnyListenersActive());
}

}  // namespace
