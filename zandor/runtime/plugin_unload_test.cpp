// Unloading libraries, with real ones.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <barrier>
#include <fstream>
#include <latch>
#include <stdexcept>
#include <thread>
#include <vector>

#include "zandor/runtime/testing/live_arrays.hpp"
#include "zandor/runtime/testing/published.hpp"
#include "zandor/runtime/testing/sample_plugin.hpp"
#include "zandor/runtime/zandor.hpp"

namespace {

using zandor::LibraryRange;
using zandor::Method;
using zandor::NotLoadedError;
using zandor::Plugin;
using zandor::PluginError;
using zandor::Value;
using zandor::testing::error;
using zandor::testing::isMapped;
using zandor::testing::Journal;
using zandor::testing::library;
using zandor::testing::pointer;
using zandor::testing::runInside;
using zandor::testing::Sample;

TEST(UnloadingAPlugin, UnmapsItsLibrary) {
    Plugin plugin = Plugin::load(library("sample"));
    zandor::resolve("sample.inner.answer")();
    plugin.unload();
    EXPECT_FALSE(plugin.isLoaded());
    EXPECT_FALSE(isMapped(library("sample")));
}

TEST(UnloadingAPlugin, AgainDoesNothing) {
    Plugin plugin = Plugin::load(library("sample"));
    plugin.unload();
    plugin.unload();
    EXPECT_FALSE(plugin.isLoaded());
}

TEST(UnloadingAPlugin, LeavesHandlesThatSayItIsNotLoaded) {
    Plugin plugin = Plugin::load(library("sample"));
    const zandor::Namespace root = zandor::findRoot("sample");
    const zandor::Namespace inner = root.findNamespace("inner");  // not populated yet
    const Method echo = root.findMethod("echo");
    plugin.unload();

    EXPECT_FALSE(root.isLoaded() || inner.isLoaded() || echo.isLoaded());
    const std::string words = "plug-in is not loaded";
    EXPECT_EQ(error<NotLoadedError>([&] { echo(Value::text("x")); }), words);
    EXPECT_EQ(error<NotLoadedError>([&] { echo(); }), words);
    EXPECT_EQ(error<NotLoadedError>([&] { root.methods(); }), words);
    EXPECT_EQ(error<NotLoadedError>([&] { inner.methods(); }), words);
    EXPECT_EQ(root.detailedDescription(), "a sample in detail");
    EXPECT_EQ(echo.description().inputs, std::vector<std::string>{"char"});
    EXPECT_THROW(zandor::findRoot("sample"), zandor::NameNotFoundError);
}

TEST(UnloadingAPlugin, DoesNotReviveHandlesByLoadingAgain) {
    Plugin first = Plugin::load(library("sample"));
    const Method old = zandor::resolve("sample.inner.answer");
    first.unload();
    const Sample second;
    EXPECT_FALSE(old.isLoaded());
    EXPECT_THROW(old(), NotLoadedError);
    EXPECT_EQ(zandor::resolve("sample.inner.answer")().asUnsignedInteger(), 42u);
}

Journal* observed = nullptr;
LibraryRange lastRange{nullptr, nullptr};

void observe(const LibraryRange& range) noexcept {
    lastRange = range;
    if (observed)
        observed->add("observers told");
}

void addObserverOnce() {
    static const bool added = [] {
        zandor::addUnloadObserver(observe);
        return true;
    }();
    ASSERT_TRUE(added);
}

TEST(UnloadingAPlugin, GoesInOrder) {
    addObserverOnce();
    Journal journal;
    Plugin plugin = Plugin::load(library("sample"));
    const zandor::Namespace root = zandor::findRoot("sample");
    root.findNamespace("inner").methods();
    root.findMethod("keepJournal")(pointer(&journal));
    observed = &journal;
    plugin.unload();
    observed = nullptr;
    std::vector<std::string> wanted(5, "method destroyed");
    wanted.insert(wanted.end(), 3, "namespace destroyed");
    wanted.insert(wanted.end(), {"observers told", "terminate", "static objects destroyed"});
    EXPECT_EQ(journal.lines, wanted);
}

TEST(UnloadingAPlugin, TellsObserversWhereTheLibraryWas) {
    addObserverOnce();
    Plugin plugin = Plugin::load(library("sample"));
    void* handle = dlopen(library("sample").c_str(), RTLD_NOW);
    ASSERT_NE(handle, nullptr);
    const void* first = dlsym(handle, "ZDInitialize_sample");
    const void* last = dlsym(handle, "ZDTerminate_sample");
    dlclose(handle);
    plugin.unload();
    EXPECT_TRUE(lastRange.contains(first));
    EXPECT_TRUE(lastRange.contains(last));
    EXPECT_FALSE(lastRange.contains(&lastRange));
}

TEST(UnloadingAPlugin, WaitsForRunningCallsAndRefusesNewOnes) {
    Plugin plugin = Plugin::load(library("sample"));
    const Method run = zandor::resolve("sample.run");
    const Method answer = zandor::resolve("sample.inner.answer");
    Journal journal;
    zandor::resolve("sample.keepJournal")(pointer(&journal));

    std::latch running(1);
    std::latch refused(1);
    std::thread caller([&] {
        runInside(run, [&] {
            running.count_down();
            refused.wait();
            journal.add("call ended");
        });
    });
    running.wait();
    std::thread unloader([&] { plugin.unload(); });
    while (answer.isLoaded())
        std::this_thread::yield();
    EXPECT_THROW(answer(), NotLoadedError);
    EXPECT_TRUE(isMapped(library("sample")));
    refused.count_down();
    caller.join();
    unloader.join();
    EXPECT_EQ(journal.lines.front(), "call ended");
    EXPECT_FALSE(isMapped(library("sample")));
}

TEST(UnloadingAPlugin, WaitsForACallThatBeganBeforeThereWereOtherThreads) {
    Plugin plugin = Plugin::load(library("sample"));
    const Method run = zandor::resolve("sample.run");
    Journal journal;
    zandor::resolve("sample.keepJournal")(pointer(&journal));
    std::thread unloader;
    runInside(run, [&] {
        unloader = std::thread([&] { plugin.unload(); });
        while (run.isLoaded())
            std::this_thread::yield();
        EXPECT_TRUE(isMapped(library("sample")));
        journal.add("call ended");
    });
    unloader.join();
    EXPECT_EQ(journal.lines.front(), "call ended");
    EXPECT_FALSE(isMapped(library("sample")));
}

TEST(UnloadingAPlugin, FromInsideItsOwnCallIsAnError) {
    Sample sample;
    const Method run = zandor::resolve("sample.run");
    std::string words;
    runInside(run, [&] { words = error<PluginError>([&] { sample.plugin.unload(); }); });
    EXPECT_EQ(words,
              library("sample").string() + " cannot be unloaded from inside one of its calls");
    EXPECT_TRUE(sample.plugin.isLoaded());
}

TEST(UnloadingAPlugin, RacesWithCallersSafely) {
    const auto live = matrix::liveArrayCount();
    for (int round = 0; round < 100; ++round) {
        Plugin plugin = Plugin::load(library("sample"));
        const Method echo = zandor::resolve("sample.echo");
        std::barrier start(3);
        std::vector<std::thread> callers;
        for (int t = 0; t < 2; ++t) {
            callers.emplace_back([&] {
                start.arrive_and_wait();
                try {
                    for (;;)
                        ASSERT_EQ(echo(Value::text("x")).asText(), "x");
                } catch (const NotLoadedError&) {
                }
            });
        }
        start.arrive_and_wait();
        plugin.unload();
        for (std::thread& caller : callers)
            caller.join();
    }
    EXPECT_EQ(matrix::liveArrayCount(), live);
}

TEST(UnloadingAPlugin, FromManyThreadsReturnsWhenItIsGone) {
    for (int round = 0; round < 20; ++round) {
        Plugin plugin = Plugin::load(library("sample"));
        std::barrier start(3);
        std::vector<std::thread> threads;
        for (int t = 0; t < 3; ++t) {
            threads.emplace_back([&, own = plugin]() mutable {
                start.arrive_and_wait();
                own.unload();
                EXPECT_FALSE(own.isLoaded());
                EXPECT_FALSE(isMapped(library("sample")));
            });
        }
        for (std::thread& thread : threads)
            thread.join();
    }
}

TEST(UnloadingAPlugin, ThatStaysMappedIsReported) {
    Plugin plugin = Plugin::load(library("pinned"));
    const std::string words = error<PluginError>([&] { plugin.unload(); });
    EXPECT_NE(words.find("pinned.so stays mapped"), std::string::npos) << words;
    EXPECT_FALSE(plugin.isLoaded());

    void* handle = dlopen(library("pinned").c_str(), RTLD_LAZY | RTLD_NOLOAD);
    ASSERT_NE(handle, nullptr);
    dlclose(handle);
    dlclose(handle);  // the reference that the library took itself
    EXPECT_FALSE(isMapped(library("pinned")));
}

std::size_t mappedRegions() {
    std::ifstream maps("/proc/self/maps");
    std::size_t count = 0;
    for (std::string line; std::getline(maps, line);)
        ++count;
    return count;
}

TEST(UnloadingAPlugin, AThousandTimesLeavesNothing) {
    const auto cycle = [] {
        const Sample sample;
        ASSERT_EQ(zandor::resolve("sample.echo")(Value::text("solve")).asText(), "solve");
        ASSERT_EQ(zandor::resolve("sample.inner.answer")().asUnsignedInteger(), 42u);
    };
    cycle();
    const std::size_t arrays = matrix::liveArrayCount();
    const std::size_t regions = mappedRegions();
    for (int i = 0; i < 1000; ++i)
        cycle();
    EXPECT_EQ(matrix::liveArrayCount(), arrays);
    EXPECT_NEAR(static_cast<double>(mappedRegions()), static_cast<double>(regions), 16);
}

/// What `function` throws, kept.
template <typename Function>
std::exception_ptr thrownBy(Function function) {
    try {
        function();
    } catch (...) {
        return std::current_exception();
    }
    return nullptr;
}

TEST(ExceptionsOfAPlugin, OutliveIt) {
    Plugin plugin = Plugin::load(library("sample"));
    const Method throwOwn = zandor::resolve("sample.throwOwn");
    const zandor::Namespace failing = zandor::findRoot("sample").findNamespace("failing");
    const std::exception_ptr kept[] = {thrownBy([&] { throwOwn(); }),
                                       thrownBy([&] { failing.methods(); })};
    plugin.unload();
    for (const std::exception_ptr& each : kept) {
        EXPECT_EQ(error<std::invalid_argument>([&] { std::rethrow_exception(each); }),
                  "an error of the plug-in's own");
    }
}

TEST(RootsThatNobodyLoaded, StayWhenAPluginGoes) {
    Plugin plugin = Plugin::load(library("sample"));
    zandor::testing::publish("nobodys");
    plugin.unload();
    EXPECT_TRUE(zandor::findRoot("nobodys").isLoaded());
}

TEST(AChildProcess, UnloadsAlthoughAnotherThreadWasCallingAtTheFork) {
    Sample sample;
    const Method run = zandor::resolve("sample.run");
    std::latch running(1);
    std::latch forked(1);
    std::thread caller([&] {
        runInside(run, [&] {
            running.count_down();
            forked.wait();
        });
    });
    running.wait();
    const pid_t child = fork();
    if (child == 0) {
        sample.plugin.unload();
        const bool gone = !isMapped(library("sample"));
        const Plugin again = Plugin::load(library("sample"));
        _exit(gone && again.isLoaded() ? 0 : 1);
    }
    forked.count_down();
    caller.join();
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST(AChildProcess, KnowsTheCallThatItWasForkedIn) {
    Sample sample;
    const Method run = zandor::resolve("sample.run");
    int status = -1;
    runInside(run, [&] {
        const pid_t child = fork();
        if (child == 0) {
            _exit(error<PluginError>([&] { sample.plugin.unload(); }) != "no error" ? 0 : 1);
        }
        EXPECT_EQ(waitpid(child, &status, 0), child);
    });
    EXPECT_EQ(status, 0);
}

}  // namespace
