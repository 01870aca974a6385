// Names and texts outlive whoever gave them, and one registry serves every library of a process.
#include <dlfcn.h>
#include <gmock/gmock.h>

#include <filesystem>
#include <string>

#include "soak_support.hpp"
#include "zandor/instrument/exports.hpp"
#include "zandor/instrument/testing/recorder_support.hpp"
#include "zandor/runtime/testing/sample_plugin.hpp"
#include "zandor/runtime/zandor.hpp"

namespace instrument {
namespace {

using test_support::Listening;

/// tests/plugins/named_events.cpp.
class UsersLibrary {
  public:
    UsersLibrary()
        : plugin_(zandor::Plugin::load(path())), handle_(dlopen(path().c_str(), RTLD_NOW)) {}
    ~UsersLibrary() { unload(); }
    UsersLibrary(const UsersLibrary&) = delete;
    UsersLibrary& operator=(const UsersLibrary&) = delete;

    void emit(int count) const { function<void(int)>("emitNamedEvents")(count); }
    const void* handleOf(const char* name) const {
        return function<const void*(const char*)>("handleOf")(name);
    }
    void unload() {
        if (handle_)
            dlclose(handle_);
        handle_ = nullptr;
        plugin_.unload();
    }
    static bool isMapped() { return zandor::testing::isMapped(path()); }

  private:
    static std::filesystem::path path() {
        return std::filesystem::path(VANTRACE_TEST_PLUGIN_DIR) / "named_events.so";
    }
    template <typename Signature>
    Signature* function(const char* name) const {
        return reinterpret_cast<Signature*>(dlsym(handle_, name));
    }

    zandor::Plugin plugin_;
    void* handle_;
};

class NamesOfALibrary : public Counted<test_support::RecorderTest> {};

std::string exportOf(const InstrumentRecorder& recorder) {
    std::string text = getAllCompleteEventsTraceEventJson(recorder, TimeSystem::monotonic,
                                                          std::chrono::nanoseconds(-1));
    for (const std::string& stack : getAllEventsCollapsedStacks(recorder))
        text += "\n" + stack;
    return text;
}

TEST_P(NamesOfALibrary, AreTheSameBytesInExportsWhenItIsGone) {
    InstrumentRecorder recorder;
    const Listening listening(recorder);
    UsersLibrary library;
    library.emit(count());
    const std::string before = exportOf(recorder);
    ASSERT_TRUE(UsersLibrary::isMapped());
    library.unload();
    ASSERT_FALSE(UsersLibrary::isMapped());
    EXPECT_EQ(exportOf(recorder), before);
    EXPECT_THAT(before, testing::HasSubstr("method of the library"));
    EXPECT_EQ(recorder.getAllEvents().size(), static_cast<std::size_t>(count()));
}

SHORT_AND_SOAK(NamesOfALibrary, 5000, 300'000);

TEST(OneRegistry, ServesTheProgramTheUsersLibraryAndThePlugIn) {
    const UsersLibrary library;
    zandor::Plugin plugin = zandor::Plugin::load(VANTRACE_PLUGIN_PATH);
    const auto isKnownToThePlugIn = [](const char* name) {
        return zandor::resolve("performance.instrument.controls.has")(zandor::Value::text(name))
            .asLogical();
    };
    EXPECT_FALSE(isKnownToThePlugIn("registered by the library"));
    const void* theirs = library.handleOf("registered by the library");
    EXPECT_TRUE(isKnownToThePlugIn("registered by the library"));
    EXPECT_EQ(controls.getHandle("registered by the library"), theirs);
    EXPECT_EQ(library.handleOf("registered by the program"),
              Instrument("registered by the program").handle());

    zandor::resolve("performance.instrument.controls.enable")(
        zandor::Value::text("registered by the library"));
    EXPECT_TRUE(static_cast<const Opaque*>(theirs)->enabled);
    zandor::resolve("performance.instrument.recorder.start")();
    EXPECT_TRUE(listeners.anyActive());
    zandor::resolve("performance.instrument.recorder.stop")();
    EXPECT_FALSE(listeners.anyActive());
    plugin.unload();
    controls.disableAll();
}

}  // namespace
}  // namespace instrument
