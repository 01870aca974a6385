// The end of services, from several threads at once and again: each call returns, and what comes
// after does nothing.
#include <dlfcn.h>
#include <gmock/gmock.h>

#include <atomic>
#include <string>
#include <thread>

#include "client_support.hpp"
#include "soak_support.hpp"
#include "vantrace/testing/console.hpp"
#include "zandor/instrument/testing/recorder_support.hpp"
#include "zandor/runtime/zandor.hpp"

namespace instrument {
namespace {

using test_support::onThreads;

constexpr int callers = 8;
constexpr const char* services[] = {"recorder", "counter", "profiler", "logger",
                                    "externalEventsAggregator"};

std::string methodOf(const char* service, const char* method) {
    return "performance.instrument." + std::string(service) + "." + method;
}

/// Emits as long as it lives.
class Busy {
  public:
    Busy()
        : thread_([this] {
              const Instrument work{"shutdown"};
              while (!done_) {
                  const Scope scope{work, {{"text", "some text"}}};
                  std::this_thread::yield();
              }
          }) {}
    ~Busy() {
        done_ = true;
        thread_.join();
    }
    Busy(const Busy&) = delete;
    Busy& operator=(const Busy&) = delete;

  private:
    std::atomic<bool> done_{false};
    std::thread thread_;
};

class Shutdown : public Counted<testing::Test> {
  protected:
    void SetUp() override { controls.disableAll(); }
    void TearDown() override { controls.disableAll(); }

    const client_tests::RuntimeFolder folder_;
    const vantrace_testing::KeptConsole console_;
};

TEST_P(Shutdown, OfServicesFromManyThreadsAndAgainIsOneShutdown) {
    zandor::Plugin plugin = zandor::Plugin::load(VANTRACE_PLUGIN_PATH);
    const Busy busy;
    for (int round = 0; round < count(); ++round) {
        for (const char* service : services)
            zandor::resolve(methodOf(service, "start"))();
        onThreads(callers, [&](int caller) {
            for (int i = 0; i < static_cast<int>(std::size(services)); ++i)
                zandor::resolve(methodOf(services[(i + caller) % std::size(services)], "stop"))();
        });
        ASSERT_FALSE(listeners.anyActive()) << "round " << round;
        for (const char* service : services)
            zandor::resolve(methodOf(service, "stop"))();
        ASSERT_FALSE(listeners.anyActive()) << "round " << round;
    }
    plugin.unload();
}

TEST_P(Shutdown, OfThePlugInFromManyThreadsReturnsToAllAndLeavesHandlesThatSaySo) {
    const Busy busy;
    for (int round = 0; round < count(); ++round) {
        const zandor::Plugin plugin = zandor::Plugin::load(VANTRACE_PLUGIN_PATH);
        for (const char* service : services)
            zandor::resolve(methodOf(service, "start"))();
        const zandor::Method stop = zandor::resolve(methodOf("recorder", "stop"));
        onThreads(callers, [&](int) {
            zandor::Plugin same = plugin;
            same.unload();
            same.unload();
            EXPECT_FALSE(same.isLoaded());
            EXPECT_THROW(stop(), zandor::NotLoadedError);
        });
        ASSERT_FALSE(listeners.anyActive()) << "round " << round;
    }
}

TEST_P(Shutdown, OfTheEntryPointsIsIdempotent) {
    zandor::Plugin plugin = zandor::Plugin::load(VANTRACE_PLUGIN_PATH);
    zandor::resolve(methodOf("recorder", "start"))();
    void* handle = dlopen(VANTRACE_PLUGIN_PATH, RTLD_NOW | RTLD_NOLOAD);
    ASSERT_TRUE(handle);
    using Entry = void();
    auto* terminate = reinterpret_cast<Entry*>(dlsym(handle, "ZDTerminate_vantrace"));
    ASSERT_TRUE(terminate);
    {
        const Busy busy;
        onThreads(callers, [&](int) {
            for (int i = 0; i < count(); ++i)
                terminate();
        });
    }
    EXPECT_TRUE(zandor::findRoot("performance").isLoaded());
    dlclose(handle);
    plugin.unload();
    EXPECT_FALSE(plugin.isLoaded());
}

SHORT_AND_SOAK(Shutdown, 10, 1000);

}  // namespace
}  // namespace instrument
