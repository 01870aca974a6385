// The methods of the namespace "controls", called as the host's users do.
#include "zandor/instrument/controls.hpp"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "vantrace/testing/events.hpp"
#include "vantrace/testing/published.hpp"

namespace {

using instrument::ContextEntry;
using instrument::ContextSet;
using instrument::controls;
using vantrace_testing::text;
using vantrace_testing::texts;
using Strings = std::vector<std::string>;

template <typename... Values>
zandor::Value call(const std::string& name, Values&&... values) {
    return vantrace_testing::call("instrument.controls." + name, std::forward<Values>(values)...);
}

bool isOn(std::string_view name, const ContextEntry& entry) {
    ContextSet context;
    context.insert(entry);
    return controls.isEnabled(name, context);
}

class PublishedControls : public vantrace_testing::WithCleanControls {};

TEST_F(PublishedControls, HaveAnInstrumentOnceSomeCodeAskedForIt) {
    EXPECT_FALSE(call("has", text("controls_test.asked")).asLogical());
    call("enable", text("controls_test.asked"));
    EXPECT_FALSE(call("has", text("controls_test.asked")).asLogical());
    controls.getHandle("controls_test.asked");
    EXPECT_TRUE(call("has", text("controls_test.asked")).asLogical());
}

TEST_F(PublishedControls, SwitchAnInstrument) {
    call("enable", text("controls_test"));
    EXPECT_TRUE(controls.isEnabled("controls_test"));
    call("disable", text("controls_test"));
    EXPECT_FALSE(controls.isEnabled("controls_test"));
}

TEST_F(PublishedControls, SwitchAnInstrumentForOneContextEntry) {
    call("enableWithContextEntry", text("controls_test"), texts({"method", "cg"}));
    EXPECT_TRUE(isOn("controls_test", {"method", "cg"}));
    EXPECT_FALSE(isOn("controls_test", {"method", "lu"}));
    EXPECT_FALSE(controls.isEnabled("controls_test"));
    call("enable", text("controls_test"));
    call("disableWithContextEntry", text("controls_test"), texts({"method", "cg"}));
    EXPECT_FALSE(isOn("controls_test", {"method", "cg"}));
    EXPECT_TRUE(isOn("controls_test", {"method", "lu"}));
}

TEST_F(PublishedControls, GiveNoValueToTheTwoEnquiries) {
    for (const char* change : {"enable", "disable"}) {
        call(change, text("controls_test"));
        EXPECT_EQ(call("isEnabled", text("controls_test")).kind(), zandor::Value::Kind::none);
        EXPECT_EQ(call("isEnabledWithContext", text("controls_test"), texts({"n", "3"})).kind(),
                  zandor::Value::Kind::none);
    }
}

TEST_F(PublishedControls, RefuseAnEntryThatIsNotTwoStringsAndChangeNothing) {
    for (const char* name :
         {"enableWithContextEntry", "disableWithContextEntry", "isEnabledWithContext"}) {
        for (const Strings& list : {Strings{}, Strings{"n"}, Strings{"n", "3", "m"}}) {
            SCOPED_TRACE(name);
            try {
                call(name, text("controls_test"), texts(list));
                ADD_FAILURE() << "the list was taken";
            } catch (const std::invalid_argument& error) {
                EXPECT_STREQ(error.what(), "makeContextEntry takes exactly two strings.");
            }
        }
    }
    EXPECT_FALSE(controls.getHandle("controls_test")->hasContextRules);
}

TEST_F(PublishedControls, SayWhetherAllWereEnabled) {
    EXPECT_FALSE(call("wereAllEnabled").asLogical());
    call("enableAll");
    EXPECT_TRUE(call("wereAllEnabled").asLogical());
    EXPECT_TRUE(controls.isEnabled("controls_test"));
    call("disableAll");
    EXPECT_FALSE(call("wereAllEnabled").asLogical());
    EXPECT_FALSE(controls.isEnabled("controls_test"));
}

}  // namespace
