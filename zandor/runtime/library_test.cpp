#include "zandor/runtime/library.hpp"

#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "zandor/runtime/testing/live_arrays.hpp"

namespace {

TEST(LibraryLoading, AlwaysWritesTheStatus) {
    int status = -1;
    EXPECT_NE(utLoadLibrary("libm.so.6", &status), nullptr);
    EXPECT_EQ(status, 0);
    EXPECT_STREQ(utLastLibraryError(), "");
    EXPECT_EQ(utLoadLibrary("/no/such/library.so", &status), nullptr);
    EXPECT_NE(status, 0);
    EXPECT_NE(std::string(utLastLibraryError()).find("/no/such/library.so"), std::string::npos);
}

TEST(LibraryLoading, FailsWithoutAName) {
    for (const char* name : {static_cast<const char*>(nullptr), ""}) {
        int status = 0;
        EXPECT_EQ(utLoadLibrary(name, &status), nullptr);
        EXPECT_NE(status, 0);
        EXPECT_STRNE(utLastLibraryError(), "");
    }
}

TEST(LibraryLoading, KeepsEachThreadsLastError) {
    int status = 0;
    utLoadLibrary("/no/such/library.so", &status);
    std::thread([] { EXPECT_STREQ(utLastLibraryError(), ""); }).join();
    EXPECT_STRNE(utLastLibraryError(), "");
}

}  // namespace
