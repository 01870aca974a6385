// Loading libraries, with real ones.
#include <gtest/gtest.h>

#include <algorithm>
#include <barrier>
#include <thread>
#include <vector>

#include "zandor/runtime/testing/live_arrays.hpp"
#include "zandor/runtime/testing/sample_plugin.hpp"
#include "zandor/runtime/zandor.hpp"

namespace {

using zandor::Plugin;
using zandor::PluginError;
using zandor::Value;
using zandor::testing::error;
using zandor::testing::isMapped;
using zandor::testing::library;
using zandor::testing::Sample;

TEST(LoadingAPlugin, PublishesItsTree) {
    const Sample sample;
    EXPECT_TRUE(sample.plugin.isLoaded());
    EXPECT_EQ(sample.plugin.path(), library("sample"));
    EXPECT_EQ(zandor::findRoot("sample").description(), "a sample");
    EXPECT_EQ(zandor::resolve("sample.inner.answer")().asUnsignedInteger(), 42u);
    EXPECT_EQ(zandor::resolve("sample.echo")(Value::text("solve")).asText(), "solve");
}

TEST(LoadingAPlugin, AgainGivesTheOneThatIsThere) {
    const Sample sample;
    const Plugin again = Plugin::load(library("sample"));
    EXPECT_TRUE(again.isLoaded());
    EXPECT_EQ(std::ranges::count(zandor::roots(), "sample", &zandor::Namespace::name), 1);
}

TEST(LoadingAPlugin, ThatIsAbsentSaysSoInTheLoadersWords) {
    const std::string words = error<PluginError>([] { Plugin::load("/no/such/libabsent.so"); });
    EXPECT_NE(words.find("/no/such/libabsent.so"), std::string::npos);
    EXPECT_NE(words.find("No such file"), std::string::npos);
    EXPECT_NE(error<PluginError>([] { Plugin::load(""); }), "no error");
}

TEST(LoadingAPlugin, ThatIsNoLibraryIsAnError) {
    const std::string words =
        error<PluginError>([] { Plugin::load(VANTRACE_SOURCE_DIR "/CMakeLists.txt"); });
    EXPECT_NE(words.find("CMakeLists.txt"), std::string::npos);
}

TEST(LoadingAPlugin, WithoutItsEntryPointClosesTheLibraryAgain) {
    EXPECT_EQ(error<PluginError>([] { Plugin::load(library("no_entry")); }),
              library("no_entry").string() + ": there is no entry point ZDInitialize_no_entry");
    EXPECT_FALSE(isMapped(library("no_entry")));
}

TEST(LoadingAPlugin, WhoseEntryPointThrowsTakesEverythingBack) {
    EXPECT_EQ(error<PluginError>([] { Plugin::load(library("throwing")); }),
              library("throwing").string() + ": out of tea");
    EXPECT_FALSE(isMapped(library("throwing")));
    EXPECT_THROW(zandor::findRoot("throwing"), zandor::NameNotFoundError);
}

TEST(LoadingAPlugin, FromManyThreadsLoadsItOnce) {
    constexpr int threadCount = 4;
    for (int round = 0; round < 20; ++round) {
        std::barrier start(threadCount);
        std::barrier loaded(threadCount);
        std::vector<std::thread> threads;
        for (int t = 0; t < threadCount; ++t) {
            threads.emplace_back([&] {
                start.arrive_and_wait();
                Plugin plugin = Plugin::load(library("sample"));
                EXPECT_EQ(zandor::resolve("sample.inner.answer")().asUnsignedInteger(), 42u);
                loaded.arrive_and_wait();
                plugin.unload();
            });
        }
        for (std::thread& thread : threads)
            thread.join();
        ASSERT_FALSE(isMapped(library("sample")));
    }
}

}  // namespace
