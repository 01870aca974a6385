#include "zandor/performance/product_stats.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <atomic>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "zandor/performance/product_stats_queue.hpp"
#include "zandor/performance/product_stats_store.hpp"
#include "zandor/runtime/console.hpp"
#include "zandor/runtime/sanitizers.hpp"

namespace performance::productStats {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

std::mutex consoleLock;
std::string console;
int keep(const char* text, std::size_t length) noexcept {
    const std::lock_guard guard(consoleLock);
    console.append(text, length);
    return static_cast<int>(length);
}

std::vector<std::string> query(const std::filesystem::path& file, const char* sql) {
    sqlite3* database = nullptr;
    EXPECT_EQ(sqlite3_open(file.c_str(), &database), SQLITE_OK);
    std::vector<std::string> lines;
    const auto addLine = [](void* to, int columns, char** values, char**) {
        std::string line;
        for (int column = 0; column < columns; ++column)
            line += std::string(column ? "|" : "") + (values[column] ? values[column] : "-");
        static_cast<std::vector<std::string>*>(to)->push_back(line);
        return 0;
    };
    EXPECT_EQ(sqlite3_exec(database, sql, addLine, &lines, nullptr), SQLITE_OK)
        << sqlite3_errmsg(database);
    sqlite3_close(database);
    return lines;
}

class ProductStats : public ::testing::Test {
  protected:
    // In memory where that can be had: how long a busy disk lets writers wait is not ours to test.
    ProductStats()
        : folder_(std::filesystem::path(::access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp") /
                  ("product stats " + std::to_string(::getpid()))) {
        std::filesystem::remove_all(folder_);
        std::filesystem::create_directory(folder_);
        setenv("XDG_STATE_HOME", (folder_ / "state").c_str(), 1);
        const std::lock_guard guard(consoleLock);
        console.clear();
        before_ = zandor::setConsoleSink(keep);
    }
    ~ProductStats() override {
        zandor::setConsoleSink(before_);
        std::filesystem::remove_all(folder_);
    }

    static mode_t modeOf(const std::filesystem::path& path) {
        struct stat status {};
        EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
        return status.st_mode & 0777;
    }

    static std::string consoleText() {
        const std::lock_guard guard(consoleLock);
        return console;
    }

    const std::filesystem::path folder_;
    zandor::ConsoleSink before_ = nullptr;
};

TEST_F(ProductStats, StandInTheUsersStateFolder) {
    EXPECT_EQ(databaseFile(), folder_ / "state/vantrace/product_stats.db");
    setenv("XDG_STATE_HOME", "relative", 1);
    setenv("HOME", "/home/somebody", 1);
    EXPECT_EQ(databaseFile(), "/home/somebody/.local/state/vantrace/product_stats.db");
    // Then what the system says of the user.
    const std::filesystem::path home = ::getpwuid(::getuid())->pw_dir;
    for (const char* nowhere : {"", "relative"}) {
        setenv("HOME", nowhere, 1);
        EXPECT_EQ(databaseFile(), home / ".local/state/vantrace/product_stats.db");
    }
}

TEST_F(ProductStats, CountTheRowsThatAFullQueueHasNoRoomFor) {
    Queue queue;
    queue.add({0, Kind::time, "before", "", 1});
    queue.flush();
    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open(databaseFile().c_str(), &other), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
    // The writing thread has taken some of them, and waits.
    constexpr std::size_t rows = 2 * Queue::capacity + 1;
    for (std::size_t i = 0; i < rows; ++i)
        queue.add({0, Kind::time, "x", "", 1});
    ASSERT_EQ(sqlite3_close(other), SQLITE_OK);
    queue.flush();
    EXPECT_GT(queue.dropped(), 0u);
    EXPECT_THAT(query(databaseFile(), "SELECT count(*) FROM event WHERE name = 'x'"),
                ElementsAre(std::to_string(rows - queue.dropped())));
}

TEST_F(ProductStats, AreForTheUserAlone) {
    const mode_t before = ::umask(0);
    Store store(databaseFile());
    store.write(std::vector<Row>{{1, Kind::time, "a", "b", 7}});
    ::umask(before);
    EXPECT_EQ(modeOf(databaseFile()), 0600u);
    EXPECT_EQ(modeOf(databaseFile().string() + "-wal"), 0600u);
    EXPECT_EQ(modeOf(databaseFile().parent_path()), 0700u);
}

TEST_F(ProductStats, KeepOneRowACallWithAnyText) {
    Store(databaseFile())
        .write(std::vector<Row>{{1, Kind::time, "a'%s", "ü😀", 7}, {2, Kind::begin, "", "", 8}});
    EXPECT_THAT(query(databaseFile(), "SELECT utc_ns, kind, name, detail, pid FROM event"),
                ElementsAre("1|time|a'%s|ü😀|7", "2|begin|||8"));
}

TEST_F(ProductStats, PairBeginsWithEnds) {
    Store(databaseFile())
        .write(std::vector<Row>{{10, Kind::begin, "a", "", 7},
                                {11, Kind::begin, "b", "", 7},
                                {12, Kind::end, "a", "", 8},  // of another process
                                {15, Kind::end, "a", "", 7},
                                {20, Kind::begin, "a", "", 7},
                                {21, Kind::begin, "a", "", 7},
                                {25, Kind::end, "a", "", 7}});
    EXPECT_THAT(query(databaseFile(),
                      "SELECT name, begin_utc_ns, end_utc_ns, duration_ns "
                      "FROM interval ORDER BY begin_utc_ns"),
                ElementsAre("a|10|15|5", "b|11|-|-", "a|20|-|-", "a|21|25|4"));
}

/// While it lives, files of this process cannot grow beyond that many bytes.
class FullDisk {
  public:
    explicit FullDisk(std::size_t bytes) : handler_(::signal(SIGXFSZ, SIG_IGN)) {
        ::getrlimit(RLIMIT_FSIZE, &before_);
        const rlimit limit{bytes, before_.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FullDisk() {
        ::setrlimit(RLIMIT_FSIZE, &before_);
        ::signal(SIGXFSZ, handler_);
    }
    FullDisk(const FullDisk&) = delete;
    FullDisk& operator=(const FullDisk&) = delete;

  private:
    const sighandler_t handler_;
    rlimit before_{};
};

TEST_F(ProductStats, WriteAllOfABatchOrNothing) {
    Store store(databaseFile());
    store.write(std::vector<Row>{{1, Kind::time, "a", "", 7}});
    {
        const FullDisk full(1);
        EXPECT_THROW(
            store.write(std::vector<Row>(5000, {2, Kind::time, std::string(100, 'x'), "", 7})),
            std::runtime_error);
    }
    EXPECT_THAT(query(databaseFile(), "SELECT count(*) FROM event"), ElementsAre("1"));
    store.write(std::vector<Row>{{3, Kind::time, "a", "", 7}});
    EXPECT_THAT(query(databaseFile(), "SELECT count(*) FROM event"), ElementsAre("2"));
}

TEST_F(ProductStats, HaveEveryRowWhenAFlushReturned) {
    Queue queue;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread)
        threads.emplace_back([&] {
            for (int i = 0; i < 500; ++i)
                queue.add({i, Kind::time, "a", "", 7});
        });
    for (auto& thread : threads)
        thread.join();
    queue.flush();
    EXPECT_THAT(query(databaseFile(), "SELECT count(*) FROM event"), ElementsAre("2000"));
    queue.close();
    queue.add({1, Kind::time, "late", "", 7});
    EXPECT_EQ(queue.dropped(), 1u);
}

TEST_F(ProductStats, SayOnceThatTheyCannotBeKept) {
    std::ofstream(folder_ / "state") << "a file where the folder should be";
    Queue queue;
    for (int i = 0; i < 3; ++i) {
        queue.add({i, Kind::time, "a", "", 7});
        queue.flush();
    }
    queue.close();
    EXPECT_EQ(queue.dropped(), 3u);
    EXPECT_EQ(consoleText().rfind("vantrace: product statistics are not kept: ", 0), 0u);
    EXPECT_THAT(consoleText(), HasSubstr((folder_ / "state").string()));
    EXPECT_EQ(consoleText().find('\n'), consoleText().size() - 1);
}

constexpr const char* namesInOrder = "SELECT name FROM event ORDER BY id";

TEST_F(ProductStats, KeepWhatThereIsWhenTheDiskIsFullAndGoOnWhenThereIsRoom) {
    Queue queue;
    queue.add({1, Kind::time, "before", "", 7});
    queue.flush();
    {
        const FullDisk full(std::filesystem::file_size(databaseFile().string() + "-wal"));
        for (int i = 0; i < 3; ++i) {
            queue.add({2, Kind::time, "meanwhile", std::string(10'000, 'x'), 7});
            queue.flush();
        }
        EXPECT_EQ(queue.dropped(), 3u);
    }
    EXPECT_THAT(query(databaseFile(), namesInOrder), ElementsAre("before"));
    queue.add({3, Kind::time, "after", "", 7});
    queue.close();
    EXPECT_THAT(query(databaseFile(), namesInOrder), ElementsAre("before", "after"));
    EXPECT_THAT(consoleText(), HasSubstr("vantrace: product statistics are not kept: "));
    EXPECT_EQ(consoleText().find('\n'), consoleText().size() - 1);
}

TEST_F(ProductStats, AreSoundWhereverTheDiskWasFull) {
    constexpr std::size_t step = ZANDOR_SANITIZED ? 4096 : 512;
    bool wasWritten = false;
    for (std::size_t room = 0; !wasWritten; room += step) {
        SCOPED_TRACE(room);
        setenv("XDG_STATE_HOME", (folder_ / std::to_string(room)).c_str(), 1);
        Queue queue;
        {
            const FullDisk full(room);
            queue.add({1, Kind::time, "first", std::string(10'000, 'x'), 7});
            queue.flush();
            wasWritten = queue.dropped() == 0;
        }
        queue.add({2, Kind::time, "second", "", 7});
        queue.close();
        EXPECT_THAT(query(databaseFile(), "PRAGMA integrity_check"), ElementsAre("ok"));
        std::vector<std::string> expected{"second"};
        if (wasWritten)
            expected.insert(expected.begin(), "first");
        EXPECT_EQ(query(databaseFile(), namesInOrder), expected);
        ASSERT_LT(room, std::size_t{1} << 20);
    }
}

TEST_F(ProductStats, KeepNothingWhereOthersPutALink) {
    std::filesystem::create_directories(databaseFile().parent_path());
    std::filesystem::create_symlink(folder_ / "elsewhere", databaseFile());
    EXPECT_THROW(Store{databaseFile()}, std::system_error);
    EXPECT_FALSE(std::filesystem::exists(folder_ / "elsewhere"));
}

TEST_F(ProductStats, AreOpenedByAForkedChildForItself) {
    logEventBeginTime("parent", "x");
    EXPECT_TRUE(flush());
    const pid_t child = ::fork();
    if (child == 0) {
        logEventTime("child", "y");
        ::_exit(flush() ? 0 : 1);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    logEventEndTime("parent", "x");
    EXPECT_TRUE(flush());
    EXPECT_THAT(query(databaseFile(), "SELECT kind, name, detail, pid FROM event ORDER BY id"),
                ElementsAre("begin|parent|x|" + std::to_string(::getpid()),
                            "time|child|y|" + std::to_string(child),
                            "end|parent|x|" + std::to_string(::getpid())));
}

// The thread sanitizer takes a mutex that a forked child makes anew for one that is still held.
#if !ZANDOR_THREAD_SANITIZED
TEST_F(ProductStats, AreKeptByChildrenThatAreForkedWhileAnotherThreadLogsForTheFirstTime) {
    constexpr int processes = 200;
    int good = 0;
    for (int i = 0; i < processes; ++i) {
        const pid_t fresh = ::fork();
        if (fresh == 0) {
            std::atomic<bool> begun{false};
            std::thread first([&] {
                begun = true;
                logEventTime("first", "x");
            });
            while (!begun)
                ;
            const pid_t child = ::fork();
            if (child == 0) {
                logEventTime("child", "y");
                ::_exit(0);
            }
            int status = -1;
            ::waitpid(child, &status, 0);
            first.join();
            ::_exit(status);
        }
        int status = -1;
        ::waitpid(fresh, &status, 0);
        good += status == 0;
    }
    EXPECT_EQ(good, processes);
}
#endif

TEST_F(ProductStats, AreKeptByManyChildrenThatAreForkedWhileRowsAreWritten) {
    constexpr int children = 20;
    // As many as it takes for some of the forks, and not without end: nobody is served in turn.
    std::thread busy([&] {
        for (int i = 0; i < 300; ++i) {
            logEventTime("parent", "x");
            flush();
        }
    });
    int good = 0;
    for (int i = 0; i < children; ++i) {
        const pid_t child = ::fork();
        if (child == 0) {
            for (int row = 0; row < 5; ++row)
                logEventTime("child", "y");
            ::_exit(flush() ? 0 : 1);
        }
        int status = -1;
        ::waitpid(child, &status, 0);
        good += status == 0;
    }
    busy.join();
    EXPECT_EQ(good, children);
    EXPECT_THAT(query(databaseFile(), "SELECT count(*) FROM event WHERE name = 'child'"),
                ElementsAre(std::to_string(5 * children)));
    EXPECT_THAT(query(databaseFile(), "PRAGMA integrity_check"), ElementsAre("ok"));
}

}  // namespace
}  // namespace performance::productStats
