#include "zandor/instrument/file_sink.hpp"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <sstream>
#include <system_error>
#include <thread>

#include "zandor/instrument/testing/temporary_folder.hpp"

namespace {

namespace fs = std::filesystem;
using instrument::detail::FileSink;
using ::testing::HasSubstr;

class SavedFile : public ::testing::Test {
  protected:
    fs::path path(const std::string& name) const { return folder_ / name; }

    static std::string content(const fs::path& file) {
        std::ostringstream text;
        text << std::ifstream(file).rdbuf();
        return text.str();
    }

    static void save(const fs::path& file, std::string_view text) {
        FileSink sink(file);
        sink.write(text);
        sink.commit();
    }

    /// The error of saving, which names the file.
    static std::error_code errorOf(const fs::path& file, std::string_view text) {
        try {
            save(file, text);
        } catch (const std::system_error& error) {
            EXPECT_THAT(error.what(), HasSubstr(file.string()));
            return error.code();
        }
        return {};
    }

    std::vector<std::string> files() const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(folder_.path()))
            names.push_back(entry.path().filename().string());
        return names;
    }

    instrument::test_support::TemporaryFolder folder_;
};

TEST_F(SavedFile, AppearsWholeWhenCommitted) {
    FileSink sink(path("trace.json"));
    sink.write("first ");
    sink.write("second");
    EXPECT_FALSE(fs::exists(path("trace.json")));
    sink.commit();
    EXPECT_EQ(content(path("trace.json")), "first second");
    EXPECT_THAT(files(), ::testing::ElementsAre("trace.json"));
}

TEST_F(SavedFile, ReplacesWhatWasThereOnlyWhenCommitted) {
    save(path("trace.json"), "old");
    {
        FileSink sink(path("trace.json"));
        sink.write("new");
    }
    EXPECT_EQ(content(path("trace.json")), "old");
    EXPECT_THAT(files(), ::testing::ElementsAre("trace.json"));
    save(path("trace.json"), "new");
    EXPECT_EQ(content(path("trace.json")), "new");
}

TEST_F(SavedFile, HasTheModeThatTheUmaskGives) {
    const mode_t before = umask(027);
    save(path("trace.json"), "text");
    umask(before);
    EXPECT_EQ(fs::status(path("trace.json")).permissions(), fs::perms(0640));
}

TEST_F(SavedFile, MayHaveTheLongestName) {
    const fs::path file = path(std::string(255, 'n'));
    save(file, "text");
    EXPECT_EQ(content(file), "text");
}

TEST_F(SavedFile, MayBeNamedRelativeToTheWorkingFolder) {
    const fs::path before = fs::current_path();
    fs::current_path(folder_.path());
    save("trace.json", "text");
    fs::current_path(before);
    EXPECT_EQ(content(path("trace.json")), "text");
}

TEST_F(SavedFile, LeavesALinkAndReplacesWhatItNames) {
    fs::create_directory(path("elsewhere"));
    save(path("elsewhere/real.json"), "old");
    fs::create_symlink("elsewhere/real.json", path("link.json"));
    save(path("link.json"), "new");
    EXPECT_TRUE(fs::is_symlink(path("link.json")));
    EXPECT_EQ(content(path("elsewhere/real.json")), "new");
}

TEST_F(SavedFile, InAFolderThatIsNotThereIsAnError) {
    EXPECT_EQ(errorOf(path("missing/trace.json"), "text"), std::errc::no_such_file_or_directory);
}

TEST_F(SavedFile, InPlaceOfAFolderIsAnError) {
    fs::create_directory(path("folder"));
    EXPECT_EQ(errorOf(path("folder"), "text"), std::errc::is_a_directory);
    EXPECT_THAT(files(), ::testing::ElementsAre("folder"));
}

TEST_F(SavedFile, OnAFullDeviceIsAnErrorAndTheDeviceStays) {
    EXPECT_EQ(errorOf("/dev/full", "text"), std::errc::no_space_on_device);
    EXPECT_TRUE(fs::is_character_file("/dev/full"));
}

TEST_F(SavedFile, GoesThroughAPipe) {
    ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
    std::string read;
    std::thread reader([&] { read = content(path("pipe")); });
    save(path("pipe"), "text");
    reader.join();
    EXPECT_EQ(read, "text");
    EXPECT_TRUE(fs::is_fifo(path("pipe")));
}

TEST_F(SavedFile, BeyondTheLimitOfItsSizeIsAnErrorAndLeavesTheOldOne) {
    save(path("trace.json"), "old");
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    const auto handler = std::signal(SIGXFSZ, SIG_IGN);
    const rlimit small{1000, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    const std::error_code error = errorOf(path("trace.json"), std::string(5000, 'x'));
    setrlimit(RLIMIT_FSIZE, &before);
    std::signal(SIGXFSZ, handler);
    EXPECT_EQ(error, std::errc::file_too_large);
    EXPECT_EQ(content(path("trace.json")), "old");
    EXPECT_THAT(files(), ::testing::ElementsAre("trace.json"));
}

TEST_F(SavedFile, LeavesNothingWhenItsProcessIsKilled) {
    const int nameless = open(folder_.path().c_str(), O_WRONLY | O_TMPFILE | O_CLOEXEC, 0600);
    if (nameless < 0)
        GTEST_SKIP() << "not every file system has files without a name";
    close(nameless);
    for (const int signal : {SIGTERM, SIGKILL}) {
        const pid_t child = fork();
        if (child == 0) {
            FileSink sink(path("trace.json"));
            sink.write("some");
            raise(signal);
        }
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == signal);
        EXPECT_THAT(files(), ::testing::IsEmpty());
    }
}

TEST_F(SavedFile, ThatCannotTakeItsPlaceIsAnErrorAndLeavesNothing) {
    {
        FileSink sink(path("trace.json"));
        sink.write("text");
        fs::create_directories(path("trace.json/inside"));
        EXPECT_THROW(sink.commit(), std::system_error);
    }
    EXPECT_THAT(files(), ::testing::ElementsAre("trace.json"));
}

}  // namespace
