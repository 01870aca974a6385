// The methods of the namespace "utils", called as the host's users do.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "vantrace/performance/libraries.hpp"
#include "vantrace/testing/console.hpp"
#include "vantrace/testing/published.hpp"
#include "zandor/performance/task_manager.hpp"
#include "zandor/performance/timers.hpp"
#include "zandor/runtime/context.hpp"

namespace {

namespace manager = Performance::CooperativeTaskManager;
using testing::HasSubstr;
using testing::MatchesRegex;
using vantrace_testing::KeptConsole;
using vantrace_testing::text;
using vantrace_testing::texts;
using zandor::Value;

template <typename... Values>
Value call(const std::string& name, Values&&... values) {
    return vantrace_testing::call("utils." + name, std::forward<Values>(values)...);
}

class PublishedUtils : public testing::Test {
  protected:
    PublishedUtils() : file_(std::filesystem::temp_directory_path() / name()) {}
    ~PublishedUtils() override {
        std::filesystem::remove(file_);
        manager::setLoggingEnabled(false);
        manager::instance()->removeAll();
    }

    std::string releaseIn(const std::string& content) {
        std::ofstream(file_) << content;
        return call("getReleseFromXMLFile", text(file_.string())).asText();
    }

    static std::string name() { return "rélease 😀 " + std::to_string(::getpid()) + ".xml"; }

    const std::filesystem::path file_;
    const KeptConsole console_;
};

TEST_F(PublishedUtils, GiveTimersAsUnsignedCountsThatDoNotDecrease) {
    for (const char* timer : {"getNanosecondTimer", "getMicrosecondTimer", "getMillisecondTimer"}) {
        const Value first = call(timer);
        EXPECT_EQ(first.kind(), Value::Kind::unsignedInteger) << timer;
        EXPECT_LE(first.asUnsignedInteger(), call(timer).asUnsignedInteger()) << timer;
    }
}

TEST_F(PublishedUtils, ReadOneClockInThreeUnits) {
    const std::uint64_t before = call("getMillisecondTimer").asUnsignedInteger();
    const std::uint64_t micro = call("getMicrosecondTimer").asUnsignedInteger();
    const std::uint64_t nano = call("getNanosecondTimer").asUnsignedInteger();
    EXPECT_LE(before, micro / 1000);
    EXPECT_LE(micro, nano / 1000);
}

TEST_F(PublishedUtils, ListModulesInACellColumn) {
    const Value modules = call("getModuleList");
    const hxArray* cell = modules.asArray();
    EXPECT_EQ(matrix::hx::hxGetClassId(cell), matrix::ClassId::cell);
    EXPECT_EQ(matrix::hx::hxGetColumns(cell), 1u);
    EXPECT_EQ(matrix::hx::hxArrayToStdString(matrix::hx::hxGetCell(cell, 0)),
              std::filesystem::read_symlink("/proc/self/exe"));
}

TEST_F(PublishedUtils, AreSilentAboutLibrariesWhileLoggingIsOff) {
    call("loadLibrary", text("libnosuch.so"));
    call("loadLibrary", text("libm.so.6"));
    EXPECT_EQ(console_.take(), "");
}

TEST_F(PublishedUtils, WriteOneLineForALibrary) {
    manager::setLoggingEnabled(true);
    call("loadLibrary", text("libm.so.6"));
    EXPECT_THAT(console_.take(),
                MatchesRegex("\\[libm\\.so\\.6\\] loaded in [0-9]+ microseconds\n"));
    call("loadLibrary", text("libnosuch.so"));
    EXPECT_THAT(console_.take(),
                MatchesRegex("utLoadLibrary\\(libnosuch\\.so\\) failed with error status: "
                             "-?[1-9][0-9]*, .*libnosuch\\.so.*\n"));
}

TEST_F(PublishedUtils, WriteOneLineForEachLibraryInOrder) {
    manager::setLoggingEnabled(true);
    call("loadLibraries", texts({}));
    EXPECT_EQ(console_.take(), "");
    call("loadLibraries", texts({"libm.so.6", "libnosuch.so", "libdl.so.2"}));
    EXPECT_THAT(console_.take(),
                MatchesRegex("\\[libm.*\nutLoadLibrary\\(libnosuch.*\n\\[libdl.*\n"));
}

TEST_F(PublishedUtils, RefuseALibraryNameWithANul) {
    EXPECT_THROW(call("loadLibrary", text(std::string_view("a\0b", 3))), std::invalid_argument);
}

/// Fails without saying so for one name, and never clears the status.
void* forgetfulLoader(const char* name, int* status) {
    static int handle = 0;
    if (std::string_view(name) == "bad")
        *status = 5;
    return &handle;
}

TEST_F(PublishedUtils, ShareOneStatusBetweenTheLibrariesOfAList) {
    manager::setLoggingEnabled(true);
    vantrace::loadEach({"a", "bad", "b"}, forgetfulLoader);
    EXPECT_THAT(console_.take(),
                MatchesRegex("\\[a\\].*\nutLoadLibrary\\(bad\\) failed with error status: 5, .*\n"
                             "utLoadLibrary\\(b\\) failed with error status: 5, .*\n"));
    vantrace::loadOne("bad", forgetfulLoader);
    console_.take();
    vantrace::loadOne("b", forgetfulLoader);
    EXPECT_THAT(console_.take(), HasSubstr("[b] loaded in "));
}

TEST_F(PublishedUtils, QueueTasksOfTheTaskManager) {
    call("queueSleepTask", Value::integer(1));
    call("queueLoadLibrary", text("libm.so.6"));
    EXPECT_EQ(manager::instance()->getNumPendingTasks(true), 2);
    const bool alone = zdutil::contextmgr::ContextRegistry::count() == 1;
    EXPECT_EQ(call("queueDummyTaskIfNonParSessions").asLogical(), alone);
    manager::setLoggingEnabled(true);
    manager::instance()->finishNow();
    EXPECT_THAT(console_.take(), HasSubstr("[libm.so.6] loaded in "));
}

TEST_F(PublishedUtils, FindTheReleaseAmongTheRootsChildren) {
    EXPECT_EQ(releaseIn("<product><name>x</name><release>R7 ü</release></product>"), "R7 ü");
    EXPECT_EQ(releaseIn("<p><release>first</release><release>second</release></p>"), "first");
    EXPECT_EQ(releaseIn("<p><release>a<b>b</b>c</release></p>"), "abc");
    EXPECT_EQ(releaseIn("<p xmlns:n='u'><n:release>a</n:release></p>"), "a");
}

TEST_F(PublishedUtils, GiveEmptyTextWhereNoReleaseIs) {
    EXPECT_EQ(releaseIn("<p><deeper><release>no</release></deeper></p>"), "");
    EXPECT_EQ(releaseIn("<p><Release>no</Release></p>"), "");
    EXPECT_EQ(releaseIn("<release>no</release>"), "");
    EXPECT_EQ(releaseIn("<p>release<!--release--></p>"), "");
}

TEST_F(PublishedUtils, PassTheReadersErrors) {
    EXPECT_THROW(releaseIn("<p>"), std::runtime_error);
    EXPECT_THROW(call("getReleseFromXMLFile", text("/no/such/file.xml")), std::system_error);
    EXPECT_THROW(call("getReleseFromXMLFile", text("")), std::system_error);
}

}  // namespace
