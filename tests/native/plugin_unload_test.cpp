// The plug-in as hosts load it: in and out again, with events on live threads and its recorder
// still registered.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "soak_support.hpp"
#include "vantrace/testing/console.hpp"
#include "zandor/instrument/controls.hpp"
#include "zandor/instrument/instrument.hpp"
#include "zandor/instrument/listeners.hpp"
#include "zandor/runtime/zandor.hpp"

namespace {

constexpr char isActive[] = "performance.instrument.recorder.isActive";
constexpr char start[] = "performance.instrument.recorder.start";
constexpr char startLogger[] = "performance.instrument.logger.start";
constexpr char getAllEventStats[] = "performance.instrument.recorder.getAllEventStats";

zandor::Plugin load() {
    return zandor::Plugin::load(VANTRACE_PLUGIN_PATH);
}

bool isMapped() {
    const std::string library = std::filesystem::path(VANTRACE_PLUGIN_PATH).filename();
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        if (line.find(library) != std::string::npos)
            return true;
    }
    return false;
}

/// Threads that produce events until they are stopped.
class Emitters {
  public:
    explicit Emitters(int count) {
        for (int i = 0; i < count; ++i)
            threads_.emplace_back([this] { emit(); });
    }
    ~Emitters() {
        ended_ = true;
        for (std::thread& thread : threads_)
            thread.join();
    }
    Emitters(const Emitters&) = delete;
    Emitters& operator=(const Emitters&) = delete;

    /// Waits until each thread has begun some events after this call.
    void await() const {
        const std::uint64_t seen = events_;
        while (events_ < seen + 64 * threads_.size())
            std::this_thread::yield();
    }

  private:
    void emit() {
        static const instrument::Instrument work{"plugin_unload"};
        while (!ended_) {
            const instrument::Scope scope(work, {{"n", std::uint64_t{events_}}});
            ++events_;
            std::this_thread::yield();
        }
    }

    std::atomic<bool> ended_{false};
    std::atomic<std::uint64_t> events_{0};
    std::vector<std::thread> threads_;
};

class PluginUnload : public testing::Test {
  protected:
    void TearDown() override {
        instrument::controls.disableAll();
        EXPECT_FALSE(isMapped());
    }
};

TEST_F(PluginUnload, TakesTheLibraryOutOfMemory) {
    zandor::Plugin plugin = load();
    EXPECT_TRUE(isMapped());
    plugin.unload();
    EXPECT_FALSE(isMapped());
    EXPECT_TRUE(zandor::roots().empty());
}

TEST_F(PluginUnload, ForgetsThatTheLibraryWasInitialised) {
    for (int round = 0; round < 3; ++round) {
        zandor::Plugin plugin = load();
        EXPECT_FALSE(zandor::resolve(isActive)().asLogical());
        plugin.unload();
    }
}

TEST_F(PluginUnload, HandlesThatStayBehindSayThatItIsNotLoaded) {
    zandor::Plugin plugin = load();
    const zandor::Method method = zandor::resolve(isActive);
    plugin.unload();
    EXPECT_FALSE(method.isLoaded());
    EXPECT_THROW(method(), zandor::NotLoadedError);
}

class PluginUnloadRounds : public Counted<PluginUnload> {};

TEST_P(PluginUnloadRounds, WhileThreadsEmitIntoItsListenersAndOthersEndAfterwards) {
    const vantrace_testing::KeptConsole console;
    const Emitters emitters(3);
    for (int round = 0; round < count(); ++round) {
        zandor::Plugin plugin = load();
        {
            const Emitters endAfterwards(1);
            for (const char* service : {"recorder", "counter", "profiler", "logger"})
                zandor::resolve("performance.instrument." + std::string(service) + ".start")();
            emitters.await();
            endAfterwards.await();
            const zandor::Value stats = zandor::resolve(getAllEventStats)();
            ASSERT_EQ(matrix::hx::hxGetColumns(stats.asArray()), 1u);
            plugin.unload();
        }
        ASSERT_FALSE(isMapped()) << "round " << round;
        ASSERT_FALSE(instrument::listeners.anyActive());
        emitters.await();
        console.take();
    }
}

SHORT_AND_SOAK(PluginUnloadRounds, 50, 2000);

TEST_F(PluginUnload, ThreadsThatEmittedMayEndAfterwards) {
    zandor::Plugin plugin = load();
    zandor::resolve(start)();
    {
        const Emitters emitters(3);
        emitters.await();
        plugin.unload();
        emitters.await();
    }
    EXPECT_FALSE(isMapped());
}

TEST_F(PluginUnload, PrintsTheLinesThatAreStillWaiting) {
    const vantrace_testing::KeptConsole console;
    zandor::Plugin plugin = load();
    zandor::resolve(startLogger)();
    std::thread([] { instrument::Instrument("plugin_unload").instant(); }).join();
    EXPECT_EQ(console.take(), "Performance Logging started");
    plugin.unload();
    EXPECT_THAT(console.take(), testing::HasSubstr("] INSTANT: plugin_unload "));
}

TEST_F(PluginUnload, WhileThreadsEmitIntoItsLogger) {
    const vantrace_testing::KeptConsole console;
    const Emitters emitters(3);
    for (int round = 0; round < 20; ++round) {
        zandor::Plugin plugin = load();
        zandor::resolve(startLogger)();
        emitters.await();
        plugin.unload();
        EXPECT_FALSE(isMapped()) << "round " << round;
        EXPECT_THAT(console.take(), testing::HasSubstr("] START: plugin_unload "));
        emitters.await();
        EXPECT_EQ(console.take(), "");
    }
}

TEST_F(PluginUnload, LeavesNoArrayBehind) {
    const std::size_t before = matrix::liveArrayCount();
    zandor::Plugin plugin = load();
    zandor::resolve(start)();
    instrument::Instrument("plugin_unload").instant();
    zandor::resolve(getAllEventStats)();
    plugin.unload();
    EXPECT_EQ(matrix::liveArrayCount(), before);
}

}  // namespace
