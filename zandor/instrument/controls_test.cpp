#include "zandor/instrument/controls.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <memory>

#include "zandor/instrument/testing/event_log.hpp"
#include "zandor/runtime/sanitizers.hpp"

namespace instrument {
namespace {

using test_support::ControlsTest;
using test_support::onThreads;

ContextSet setOf(std::initializer_list<ContextEntry> entries) {
    return {entries};
}

const ContextEntry small{"n", "3"};
const ContextEntry big{"n", "300"};
const ContextEntry method{"method", "cg"};

TEST_F(ControlsTest, AHandleIsTheSameForEachAskAndKeepsItsName) {
    auto name = std::make_unique<std::string>("controls.handle");
    const Opaque* handle = controls.getHandle(*name);
    EXPECT_EQ(handle, controls.getHandle("controls.handle"));
    name.reset();
    EXPECT_STREQ(handle->name, "controls.handle");
    EXPECT_EQ(handle->nameLength, 15u);
    EXPECT_NE(handle, controls.getHandle("controls.handle2"));
}

TEST_F(ControlsTest, TheFirstMemberOfAHandleIsTheNamesPointer) {
    const Opaque* handle = controls.getHandle("controls.firstMember");
    EXPECT_STREQ(*reinterpret_cast<const char* const*>(handle), "controls.firstMember");
}

TEST_F(ControlsTest, ANameIsKnownOnceSomeCodeAskedForItsHandle) {
    EXPECT_FALSE(controls.has("controls.known"));
    controls.enable("controls.known");
    controls.enable("controls.known", small);
    EXPECT_FALSE(controls.has("controls.known"));
    EXPECT_TRUE(controls.isEnabled("controls.known"));
    controls.getHandle("controls.known");
    EXPECT_TRUE(controls.has("controls.known"));
}

TEST_F(ControlsTest, ASwitchOfANameThatIsOnlyMentionedAppliesWhenItIsRegistered) {
    controls.enable("controls.mentioned");
    controls.disable("controls.mentioned", small);
    const Opaque* handle = controls.getHandle("controls.mentioned");
    EXPECT_TRUE(handle->enabled);
    EXPECT_TRUE(handle->hasContextRules);
}

TEST_F(ControlsTest, TheEmptyNameIsAnInstrumentLikeAnyOther) {
    const Opaque* handle = controls.getHandle("");
    EXPECT_STREQ(handle->name, "");
    controls.enable("");
    EXPECT_TRUE(handle->enabled);
    EXPECT_TRUE(controls.has(""));
    EXPECT_FALSE(controls.isEnabled(" "));
}

TEST_F(ControlsTest, ANulInsideANameIsRefusedByTheArgumentsName) {
    const std::string_view name("a\0b", 3);
    const auto refuses = [](auto call) {
        try {
            call();
        } catch (const std::invalid_argument& error) {
            return std::string(error.what()).find("name") != std::string::npos;
        }
        return false;
    };
    EXPECT_TRUE(refuses([&] { controls.getHandle(name); }));
    EXPECT_TRUE(refuses([&] { controls.enable(name); }));
    EXPECT_TRUE(refuses([&] { controls.enable(name, small); }));
    EXPECT_TRUE(refuses([&] { controls.disable(name); }));
    EXPECT_TRUE(refuses([&] { controls.disable(name, small); }));
    EXPECT_FALSE(controls.has(name));
    EXPECT_FALSE(controls.isEnabled(name));
}

TEST_F(ControlsTest, AnInstrumentIsOffUntilItIsEnabled) {
    const Opaque* handle = controls.getHandle("controls.off");
    EXPECT_FALSE(handle->enabled);
    controls.enable("controls.off");
    EXPECT_TRUE(handle->enabled);
    controls.disable("controls.off");
    EXPECT_FALSE(handle->enabled);
}

TEST_F(ControlsTest, EnableAllSwitchesNamesOnThatNobodyTouched) {
    EXPECT_FALSE(controls.wereAllEnabled());
    const Opaque* old = controls.getHandle("controls.all.old");
    controls.enableAll(true);
    EXPECT_TRUE(controls.wereAllEnabled());
    EXPECT_TRUE(old->enabled);
    EXPECT_TRUE(controls.getHandle("controls.all.new")->enabled);
    EXPECT_TRUE(controls.isEnabled("controls.all.never"));
    EXPECT_FALSE(controls.has("controls.all.never"));
}

TEST_F(ControlsTest, IndividualCallsUnderTheFlagHoldUntilTheNextEnableAll) {
    controls.enableAll(true);
    controls.disable("controls.since");
    EXPECT_FALSE(controls.isEnabled("controls.since"));
    controls.enableAll(true);
    EXPECT_TRUE(controls.isEnabled("controls.since"));
}

TEST_F(ControlsTest, IndividualCallsUnderTheFlagAlsoChangeTheOwnState) {
    controls.enable("controls.both");
    controls.enableAll(true);
    controls.disable("controls.both");
    controls.enable("controls.both.on");
    controls.enableAll(false);
    EXPECT_FALSE(controls.wereAllEnabled());
    EXPECT_FALSE(controls.isEnabled("controls.both"));
    EXPECT_TRUE(controls.isEnabled("controls.both.on"));
}

TEST_F(ControlsTest, LoweringTheFlagGivesTheOwnSwitchesBack) {
    controls.enable("controls.back.on");
    controls.disable("controls.back.off");
    controls.enableAll(true);
    EXPECT_TRUE(controls.isEnabled("controls.back.off"));
    controls.enableAll(false);
    EXPECT_TRUE(controls.isEnabled("controls.back.on"));
    EXPECT_FALSE(controls.isEnabled("controls.back.off"));
    controls.enableAll(false);
    EXPECT_TRUE(controls.isEnabled("controls.back.on"));
}

TEST_F(ControlsTest, DisableAllLeavesNothingOnAndNoRule) {
    const Opaque* handle = controls.getHandle("controls.none");
    controls.enable("controls.none");
    controls.enable("controls.none", small);
    controls.enableAll(true);
    controls.disable("controls.none", big);
    controls.disableAll();
    EXPECT_FALSE(controls.wereAllEnabled());
    EXPECT_FALSE(handle->enabled);
    EXPECT_FALSE(handle->hasContextRules);
    controls.enableAll(true);
    controls.enableAll(false);
    EXPECT_FALSE(handle->enabled);
    EXPECT_FALSE(handle->hasContextRules);
}

TEST_F(ControlsTest, RulesInForceFollowTheFlag) {
    const Opaque* handle = controls.getHandle("controls.rules.flag");
    controls.disable("controls.rules.flag", small);
    EXPECT_TRUE(handle->hasContextRules);
    controls.enableAll(true);
    EXPECT_FALSE(handle->hasContextRules);
    EXPECT_TRUE(controls.isEnabled("controls.rules.flag", setOf({small})));
    controls.disable("controls.rules.flag", big);
    EXPECT_TRUE(handle->hasContextRules);
    EXPECT_TRUE(controls.isEnabled("controls.rules.flag", setOf({small})));
    EXPECT_FALSE(controls.isEnabled("controls.rules.flag", setOf({big})));
    controls.enableAll(true);
    EXPECT_FALSE(handle->hasContextRules);
    controls.enableAll(false);
    EXPECT_TRUE(handle->hasContextRules);
    EXPECT_FALSE(controls.isEnabled("controls.rules.flag", setOf({small})));
    EXPECT_FALSE(controls.isEnabled("controls.rules.flag", setOf({big})));
}

TEST_F(ControlsTest, ARuleDecidesOverTheSwitch) {
    controls.enable("controls.rule");
    controls.disable("controls.rule", small);
    EXPECT_TRUE(controls.isEnabled("controls.rule"));
    EXPECT_FALSE(controls.isEnabled("controls.rule", setOf({small})));
    EXPECT_TRUE(controls.isEnabled("controls.rule", setOf({big})));
    controls.disable("controls.rule");
    controls.enable("controls.rule", small);
    EXPECT_TRUE(controls.isEnabled("controls.rule", setOf({small})));
    EXPECT_FALSE(controls.isEnabled("controls.rule", setOf({big})));
}

TEST_F(ControlsTest, TheNewestRuleForAnEntryReplacesTheOlder) {
    const ControlElement& element = ControlElement::of(controls.getHandle("controls.newest"));
    for (int i = 0; i < 3; ++i) {
        controls.enable("controls.newest", small);
        EXPECT_EQ(element.getContextEnabledImpl(setOf({small})), Enabled::enabled);
        controls.disable("controls.newest", small);
        EXPECT_EQ(element.getContextEnabledImpl(setOf({small})), Enabled::disabled);
    }
}

TEST_F(ControlsTest, OffWinsAmongTheRulesThatMatch) {
    const ControlElement& element = ControlElement::of(controls.getHandle("controls.offWins"));
    controls.enable("controls.offWins", small);
    controls.disable("controls.offWins", method);
    EXPECT_EQ(element.getContextEnabledImpl(setOf({small, method})), Enabled::disabled);
    EXPECT_EQ(element.getContextEnabledImpl(setOf({small})), Enabled::enabled);
    EXPECT_EQ(element.getContextEnabledImpl(setOf({method})), Enabled::disabled);
    EXPECT_EQ(element.getContextEnabledImpl(setOf({big})), Enabled::noRule);
    EXPECT_EQ(element.getContextEnabledImpl({}), Enabled::noRule);
}

TEST_F(ControlsTest, AVerdictsNumbersAreThoseOfTheInterface) {
    EXPECT_EQ(static_cast<int>(Enabled::noRule), 0);
    EXPECT_EQ(static_cast<int>(Enabled::enabled), 1);
    EXPECT_EQ(static_cast<int>(Enabled::disabled), 2);
}

TEST_F(ControlsTest, AnEmptyContextNeverAsksTheRules) {
    controls.enable("controls.empty");
    controls.disable("controls.empty", ContextEntry{"", ""});
    EXPECT_TRUE(controls.isEnabled("controls.empty", {}));
    EXPECT_FALSE(controls.isEnabled("controls.empty", setOf({ContextEntry{"", ""}})));
}

TEST_F(ControlsTest, RulesKeepTheirTextsWhenTheCallersAreGone) {
    {
        const std::string name = "key of the caller";
        controls.disable("controls.texts", ContextEntry{name, "value of the caller"});
    }
    controls.enable("controls.texts");
    EXPECT_FALSE(controls.isEnabled(
        "controls.texts", setOf({ContextEntry{"key of the caller", "value of the caller"}})));
}

TEST_F(ControlsTest, ManyRulesOfOneInstrumentAreAllFound) {
    const ControlElement& element = ControlElement::of(controls.getHandle("controls.many"));
    for (int i = 0; i < 300; ++i) {
        const ContextEntry entry{"n", std::to_string(i)};
        i % 2 ? controls.enable("controls.many", entry) : controls.disable("controls.many", entry);
    }
    for (int i = 0; i < 300; ++i)
        EXPECT_EQ(element.getContextEnabledImpl(setOf({ContextEntry{"n", std::to_string(i)}})),
                  i % 2 ? Enabled::enabled : Enabled::disabled);
}

TEST_F(ControlsTest, ThreadsThatRegisterTheSameNamesGetTheSameHandles) {
    constexpr int threads = 8;
    constexpr int names = 2000;
    std::vector<std::vector<const Opaque*>> handles(threads);
    onThreads(threads, [&](int thread) {
        for (int i = 0; i < names; ++i)
            handles[thread].push_back(controls.getHandle("controls.race" + std::to_string(i)));
    });
    for (int thread = 1; thread < threads; ++thread)
        EXPECT_EQ(handles[thread], handles[0]);
    for (int i = 0; i < names; ++i)
        EXPECT_EQ(handles[0][i]->name, "controls.race" + std::to_string(i));
}

TEST_F(ControlsTest, AskingWhileRulesChangeGivesOneOfTheAnswersThatWereTrue) {
    const ControlElement& element = ControlElement::of(controls.getHandle("controls.change"));
    controls.enable("controls.change", small);
    std::atomic<bool> done{false};
    onThreads(4, [&](int thread) {
        if (thread == 0) {
            for (int i = 0; i < 2000; ++i) {
                controls.disable("controls.change", small);
                controls.enable("controls.change", small);
            }
            done = true;
        }
        while (!done)
            EXPECT_NE(element.getContextEnabledImpl(setOf({small})), Enabled::noRule);
    });
    EXPECT_EQ(element.getContextEnabledImpl(setOf({small})), Enabled::enabled);
}

long residentPages() {
    long size = 0;
    long resident = 0;
    std::ifstream("/proc/self/statm") >> size >> resident;
    return resident;
}

TEST_F(ControlsTest, TogglingARuleInALoopUsesNoMoreMemory) {
    std::atomic<bool> done{false};
    onThreads(2, [&](int thread) {
        const ControlElement& element = ControlElement::of(controls.getHandle("controls.toggle"));
        if (thread == 1) {
            const ContextSet context = setOf({small});
            while (!done)
                element.getContextEnabledImpl(context);
            return;
        }
        const auto toggle = [](int times) {
            for (int i = 0; i < times; ++i) {
                controls.enable("controls.toggle", small);
                controls.disable("controls.toggle", small);
            }
        };
        toggle(1000);
        const long before = residentPages();
        toggle(20'000);
        // A sanitizer keeps freed memory back.
        if (!ZANDOR_SANITIZED) {
            EXPECT_LT((residentPages() - before) * sysconf(_SC_PAGESIZE), 1 << 20);
        }
        done = true;
    });
}

}  // namespace
}  // namespace instrument
