// Population of namespaces and lookup of what they published.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <latch>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "zandor/runtime/testing/live_arrays.hpp"
#include "zandor/runtime/testing/published.hpp"
#include "zandor/runtime/zandor.hpp"

namespace {

using kobs::COSPackage;
using kobs::factory::MethodAttributes;
using zandor::Door;
using zandor::testing::publish;
using zandor::testing::TestMethod;
using zandor::testing::TestNamespace;

TestMethod* method(const std::string& name, MethodAttributes attributes = {}) {
    return new TestMethod(
        name, {}, "void", [](auto...) {}, attributes);
}

template <typename Handles>
std::vector<std::string> namesOf(const Handles& handles) {
    std::vector<std::string> names;
    for (const auto& handle : handles) {
        if constexpr (requires { handle.name(); }) {
            names.push_back(handle.name());
        } else {
            names.push_back(handle.description().name);
        }
    }
    return names;
}

using Names = std::vector<std::string>;

TEST(Roots, ArePublishedInOrder) {
    publish("roots_first");
    publish("roots_second");
    const Names names = namesOf(zandor::roots());
    ASSERT_GE(names.size(), 2u);
    EXPECT_EQ(std::ranges::find(names, "roots_first") + 1,
              std::ranges::find(names, "roots_second"));
    EXPECT_EQ(zandor::findRoot("roots_first").fullName(), "roots_first");
    EXPECT_EQ(zandor::findRoot("roots_first").description(), "described");
    EXPECT_EQ(zandor::findRoot("roots_first").detailedDescription(), "described in detail");
    EXPECT_TRUE(zandor::findRoot("roots_first").isLoaded());
    EXPECT_THROW(zandor::findRoot("roots_third"), zandor::NameNotFoundError);
}

TEST(Roots, ThatAreNullOrNamelessOrThereAlreadyBecomeTheLastError) {
    publish("roots_taken");
    zandor::clearLastError();
    EXPECT_EQ(zandor::lastError(), "");

    COSPackage::addNamespace(nullptr);
    EXPECT_EQ(zandor::lastError(), "no root namespace object was handed over");

    bool destroyed = false;
    auto* second = new TestNamespace("roots_taken");
    second->onDestruction = [&] { destroyed = true; };
    COSPackage::addNamespace(second);
    EXPECT_EQ(zandor::lastError(), "a root namespace \"roots_taken\" is published already");
    EXPECT_TRUE(destroyed);

    publish("");
    EXPECT_EQ(zandor::lastError(), "a root namespace has no name");
    zandor::clearLastError();
}

TEST(Population, HappensAtTheFirstNeedAndOnce) {
    int populations = 0;
    publish("lazy", [&](COSPackage& package) {
        ++populations;
        package.addMethod(method("one"), 0, 2);
    });
    const zandor::Namespace lazy = zandor::findRoot("lazy");
    EXPECT_EQ(populations, 0);
    EXPECT_EQ(namesOf(lazy.methods()), Names{"one"});
    EXPECT_EQ(namesOf(lazy.namespaces()), Names{});
    zandor::resolve("lazy.one");
    EXPECT_EQ(populations, 1);
}

TEST(Population, KeepsTheOrderOfRegistration) {
    publish("ordered", [](COSPackage& package) {
        for (const char* name : {"z", "a", "m"})
            package.addChildNamespace(new TestNamespace(name));
        for (const char* name : {"y", "b", "n"})
            package.addMethod(method(name), 0, 2);
    });
    EXPECT_EQ(namesOf(zandor::findRoot("ordered").namespaces()), (Names{"z", "a", "m"}));
    EXPECT_EQ(namesOf(zandor::findRoot("ordered").methods()), (Names{"y", "b", "n"}));
}

TEST(Population, ThatFailsIsDestroyedWholeAndTriedAgain) {
    int attempts = 0;
    int destroyed = 0;
    publish("failing", [&](COSPackage& package) {
        auto* child = new TestNamespace("child");
        child->onDestruction = [&] { ++destroyed; };
        package.addChildNamespace(child);
        package.addMethod(method("half"), 0, 2);
        if (++attempts == 1)
            throw std::runtime_error("not yet");
        package.addMethod(method("whole"), 0, 2);
    });
    const zandor::Namespace failing = zandor::findRoot("failing");
    try {
        failing.methods();
        ADD_FAILURE() << "the population's error was lost";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "not yet");
    }
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(namesOf(failing.methods()), (Names{"half", "whole"}));
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(attempts, 2);
}

TEST(Population, ShowsNothingBeforeItReturned) {
    bool seen = true;
    publish("unfinished", [&](COSPackage& package) {
        package.addMethod(method("early"), 0, 2);
        try {
            zandor::resolve("unfinished.early");
        } catch (const std::logic_error& error) {
            seen = false;
            EXPECT_STREQ(error.what(), "the population of namespace \"unfinished\" needs itself");
        }
    });
    zandor::findRoot("unfinished").methods();
    EXPECT_FALSE(seen);
}

TEST(Population, MayNeedAnotherNamespace) {
    publish("needed", [](COSPackage& package) { package.addMethod(method("there"), 0, 2); });
    publish("needing", [](COSPackage& package) {
        package.addMethod(method(zandor::resolve("needed.there").description().name), 0, 2);
    });
    EXPECT_EQ(namesOf(zandor::findRoot("needing").methods()), Names{"there"});
}

TEST(Population, ThatNeedsItselfThroughAnotherThreadIsAnErrorForOne) {
    // Each begins its own before either goes on to need the other.
    std::latch both(2);
    std::atomic<int> errors{0};
    const auto needing = [&](const std::string& other) {
        auto first = std::make_shared<std::atomic<bool>>(true);
        return [&, other, first](COSPackage&) {
            if (first->exchange(false))
                both.arrive_and_wait();
            try {
                zandor::findRoot(other).methods();
            } catch (const std::logic_error&) {
                ++errors;
                throw;
            }
        };
    };
    publish("cycle_a", needing("cycle_b"));
    publish("cycle_b", needing("cycle_a"));
    std::atomic<int> failures{0};
    const auto need = [&](const char* name) {
        try {
            zandor::findRoot(name).methods();
        } catch (const std::logic_error&) {
            ++failures;
        }
    };
    std::thread a(need, "cycle_a");
    std::thread b(need, "cycle_b");
    a.join();
    b.join();
    EXPECT_GE(errors.load(), 1);
    EXPECT_EQ(failures.load(), 2);
}

TEST(Population, IsDoneByOneOfManyThreads) {
    constexpr int threadCount = 4;
    std::atomic<int> populations{0};
    publish("contended", [&](COSPackage& package) {
        ++populations;
        package.addMethod(method("one"), 0, 2);
    });
    std::barrier start(threadCount);
    std::vector<std::thread> threads;
    for (int t = 0; t < threadCount; ++t) {
        threads.emplace_back([&] {
            start.arrive_and_wait();
            EXPECT_EQ(zandor::resolve("contended.one").description().name, "one");
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(populations.load(), 1);
}

TEST(Population, ThatAnotherThreadDidNotFinishBeforeAForkBeginsAnewInTheChild) {
    std::latch populating(1);
    std::latch forked(1);
    const pid_t parent = getpid();
    publish("forked", [&](COSPackage& package) {
        if (getpid() == parent) {
            populating.count_down();
            forked.wait();
        }
        package.addMethod(method("one"), 0, 2);
    });
    std::thread populator([] { zandor::findRoot("forked").methods(); });
    populating.wait();
    const pid_t child = fork();
    if (child == 0)
        _exit(zandor::findRoot("forked").methods().size() == 1 ? 0 : 1);
    forked.count_down();
    populator.join();
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(zandor::findRoot("forked").methods().size(), 1u);
}

TEST(NamesOfAPackage, AreUniqueAmongNamespacesAndMethods) {
    const auto twice = [](const char* kind) {
        return [kind](COSPackage& package) {
            package.addChildNamespace(new TestNamespace("same"));
            if (kind == std::string("namespace")) {
                package.addChildNamespace(new TestNamespace("same"));
            } else {
                package.addMethod(method("same"), 0, 2);
            }
        };
    };
    publish("twice_namespace", twice("namespace"));
    publish("twice_method", twice("method"));
    for (const char* name : {"twice_namespace", "twice_method"}) {
        EXPECT_THROW(zandor::findRoot(name).methods(), kobs::NameExistsError);
    }
}

TEST(NamesOfAPackage, MayOccurInAnotherPackage) {
    publish("outer", [](COSPackage& package) {
        package.addChildNamespace(new TestNamespace(
            "outer", [](COSPackage& inner) { inner.addMethod(method("outer"), 0, 2); }));
    });
    EXPECT_EQ(zandor::resolve("outer.outer.outer").description().fullName, "outer.outer.outer");
}

/// A method whose signature never came to be.
class Unsigned : public kobs::factory::KobsMethod {
  public:
    Unsigned() : KobsMethod("unsigned", {}, "") {}
    void invoke(void*, std::int32_t*, kobs::Cell*, std::int32_t, const kobs::Cell*) override {}
};

TEST(ObjectsOfAPackage, ThatAreMissingAreRefusedAndKeptAsTheLastError) {
    std::vector<std::string> errors;
    publish("gaps", [&](COSPackage& package) {
        const auto note = [&] { errors.push_back(zandor::lastError()); };
        package.addChildNamespace(nullptr);
        note();
        package.addMethod(nullptr, 0, 2);
        note();
        package.addMethod(new Unsigned, 0, 2);
        note();
        package.addChildNamespace(new TestNamespace(""));
        note();
        package.addMethod(method(""), 0, 2);
        note();
        package.addMethod(method("real"), 0, 2);
    });
    EXPECT_EQ(namesOf(zandor::findRoot("gaps").methods()), Names{"real"});
    EXPECT_EQ(errors, (Names{"namespace \"gaps\" registered no namespace object",
                             "namespace \"gaps\" registered no method object",
                             "namespace \"gaps\" registered a method without a signature",
                             "namespace \"gaps\" registered a namespace without a name",
                             "namespace \"gaps\" registered a method without a name"}));
    zandor::clearLastError();
}

TEST(Descriptions, TellWhatWasPublished) {
    publish("described", [](COSPackage& package) {
        MethodAttributes attributes = MethodAttributes::Static();
        attributes |= MethodAttributes::Hidden();
        attributes |= MethodAttributes::Private();
        package.addMethod(
            new TestMethod(
                "closed", {"char", "uint64 scalar"}, "any", [](auto...) {}, attributes),
            7, 9);
        package.addMethod(method("open"), 0, 2);
    });
    const auto methods = zandor::findRoot("described").methods();
    ASSERT_EQ(methods.size(), 2u);
    const zandor::MethodDescription& closed = methods[0].description();
    EXPECT_EQ(closed.fullName, "described.closed");
    EXPECT_EQ(closed.inputs, (Names{"char", "uint64 scalar"}));
    EXPECT_EQ(closed.outputs, Names{"any"});
    EXPECT_TRUE(closed.isStatic && closed.isHidden && closed.isPrivate);
    EXPECT_EQ(closed.minimumInputs, 7);
    EXPECT_EQ(closed.flags, 9);
    const zandor::MethodDescription& open = methods[1].description();
    EXPECT_FALSE(open.isStatic || open.isHidden || open.isPrivate);
}

TEST(Resolving, FollowsDottedNames) {
    publish("tree", [](COSPackage& package) {
        package.addChildNamespace(new TestNamespace(
            "branch", [](COSPackage& branch) { branch.addMethod(method("leaf"), 0, 2); }));
        package.addMethod(method("leaf"), 0, 2);
    });
    EXPECT_EQ(zandor::resolve("tree.leaf").description().fullName, "tree.leaf");
    EXPECT_EQ(zandor::resolve("tree.branch.leaf").description().fullName, "tree.branch.leaf");
    EXPECT_EQ(zandor::findRoot("tree").findNamespace("branch").fullName(), "tree.branch");
}

TEST(Resolving, SaysWhatIsMissing) {
    publish("missing",
            [](COSPackage& package) { package.addChildNamespace(new TestNamespace("branch")); });
    const auto error = [](std::string_view name) -> std::string {
        try {
            zandor::resolve(name);
        } catch (const zandor::NameNotFoundError& caught) {
            return caught.what();
        }
        return "";
    };
    EXPECT_EQ(error("nowhere.leaf"), "no namespace \"nowhere\" is published");
    EXPECT_EQ(error("missing.twig.leaf"), "\"missing\" has no namespace \"twig\"");
    EXPECT_EQ(error("missing.branch.leaf"), "\"missing.branch\" has no method \"leaf\"");
    EXPECT_EQ(error("missing.branch"), "\"missing\" has no method \"branch\"");
    EXPECT_EQ(error("missing"), "\"missing\" is not the full name of a method");
    EXPECT_EQ(error(""), "\"\" is not the full name of a method");
    EXPECT_EQ(error("missing."), "\"missing\" has no method \"\"");
    EXPECT_EQ(error("..x"), "no namespace \"\" is published");
}

TEST(Resolving, GivesPrivateMethodsThroughTheirDoorOnly) {
    publish("private", [](COSPackage& package) {
        package.addMethod(method("closed", MethodAttributes::Private()), 0, 2);
        package.addMethod(method("hidden", MethodAttributes::Hidden()), 0, 2);
    });
    EXPECT_THROW(zandor::resolve("private.closed"), zandor::NameNotFoundError);
    EXPECT_TRUE(zandor::resolve("private.closed", Door::privateToo).description().isPrivate);
    EXPECT_TRUE(zandor::resolve("private.hidden").description().isHidden);
    EXPECT_EQ(namesOf(zandor::findRoot("private").methods()), (Names{"closed", "hidden"}));
}

}  // namespace
