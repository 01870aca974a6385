#include "zandor/performance/library_loading.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "zandor/performance/task_manager.hpp"
#include "zandor/runtime/console.hpp"
#include "zandor/runtime/library.hpp"

namespace Performance {
namespace {

std::string written;
int keep(const char* text, std::size_t length) noexcept {
    written.append(text, length);
    return static_cast<int>(length);
}

class LibraryLoading : public ::testing::Test {
  protected:
    void SetUp() override {
        written.clear();
        before_ = zandor::setConsoleSink(keep);
        CooperativeTaskManager::setLoggingEnabled(true);
    }
    void TearDown() override {
        CooperativeTaskManager::setLoggingEnabled(false);
        zandor::setConsoleSink(before_);
    }

  private:
    zandor::ConsoleSink before_ = nullptr;
};

TEST_F(LibraryLoading, WritesOneLineForALibraryThatLoads) {
    int status = 0;
    loadLibraryTimed("libm.so.6", status, &utLoadLibrary);
    EXPECT_THAT(written,
                ::testing::MatchesRegex("\\[libm\\.so\\.6\\] loaded in [0-9]+ microseconds\n"));
}

TEST_F(LibraryLoading, WritesTheLoadersWordsForOneThatDoesNot) {
    int status = 0;
    loadLibraryTimed("libno%such.so", status, &utLoadLibrary);
    EXPECT_NE(status, 0);
    EXPECT_THAT(written, ::testing::MatchesRegex("utLoadLibrary\\(libno%such\\.so\\) failed with "
                                                 "error status: -?[0-9]+, .*libno%such.*\n"));
}

TEST_F(LibraryLoading, BelievesTheStatusMoreThanTheHandle) {
    static int something = 0;
    int status = 7;
    loadLibraryTimed(
        "x", status, +[](const char*, int*) -> void* { return &something; });
    EXPECT_EQ(written.rfind("utLoadLibrary(x) failed with error status: 7, ", 0), 0u) << written;
}

TEST_F(LibraryLoading, IsSilentWhileLoggingIsOff) {
    CooperativeTaskManager::setLoggingEnabled(false);
    int status = 0;
    loadLibraryTimed("libnosuch.so", status, &utLoadLibrary);
    EXPECT_EQ(written, "");
}

TEST_F(LibraryLoading, IsQueuedAsATask) {
    CooperativeTaskManager::test_queueLoadLibrary("libm.so.6");
    EXPECT_EQ(written, "");
    CooperativeTaskManager::instance()->finishNow();
    EXPECT_EQ(written.rfind("[libm.so.6] loaded in ", 0), 0u) << written;
    CooperativeTaskManager::instance()->cleanup();
}

}  // namespace
}  // namespace Performance
