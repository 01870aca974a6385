// Listeners of a library that is unloaded are taken out before its code goes.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "zandor/instrument/controls.hpp"
#include "zandor/instrument/instrument.hpp"
#include "zandor/instrument/listener.hpp"
#include "zandor/instrument/recorder.hpp"
#include "zandor/runtime/zandor.hpp"

namespace {

const std::filesystem::path library =
    std::filesystem::path(VANTRACE_TEST_PLUGIN_DIR) / "listening.so";

/// Has the loaded library register its two listeners.
void listen(std::atomic<int>& heard, void*& memory) {
    void* handle = dlopen(library.c_str(), RTLD_NOW | RTLD_NOLOAD);
    ASSERT_TRUE(handle);
    using Function = void(std::atomic<int>*, void*);
    reinterpret_cast<Function*>(dlsym(handle, "listenAndCount"))(&heard, &memory);
    dlclose(handle);
}

class UnloadListenersTest : public testing::Test {
  protected:
    void SetUp() override { instrument::controls.enable("unload"); }
    void TearDown() override { instrument::controls.disableAll(); }
    const instrument::Instrument unload{"unload"};
};

TEST_F(UnloadListenersTest, AListenerLeavesWithItsObjectsOrItsClassesLibrary) {
    std::atomic<int> heard{0};
    instrument::InstrumentRecorder recorder;
    instrument::listeners.add(recorder);
    zandor::Plugin plugin = zandor::Plugin::load(library);
    void* memory = nullptr;
    listen(heard, memory);
    unload.instant();
    EXPECT_EQ(heard, 2);
    plugin.unload();
    unload.instant();
    EXPECT_EQ(heard, 2);
    EXPECT_TRUE(instrument::listeners.has(recorder)) << "somebody else's listener was taken out";
    EXPECT_EQ(recorder.getEventPoints("unload").size(), 2u);
}

TEST_F(UnloadListenersTest, ALibraryIsUnloadedAgainAndAgainWhileThreadsEmit) {
    std::atomic<bool> done{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            while (!done)
                instrument::Scope scope{unload, {{"n", 1}}};
        });
    std::atomic<int> heard{0};
    for (int i = 0; i < 1000; ++i) {
        zandor::Plugin plugin = zandor::Plugin::load(library);
        void* memory = nullptr;
        listen(heard, memory);
        plugin.unload();
        EXPECT_FALSE(instrument::listeners.anyActive());
    }
    done = true;
    for (std::thread& thread : threads)
        thread.join();
}

}  // namespace
