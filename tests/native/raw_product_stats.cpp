// Eight processes of four threads each log product statistics at once, and are killed at random.
// Every row that was logged before a flush that returned is there, and the database is whole.
//
// A program of its own: the writers are this executable again, started afresh.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "zandor/performance/product_stats.hpp"

namespace {

constexpr int processes = 8;
constexpr int threads = 4;
constexpr int rowsPerFlush = 20;
constexpr int minimumFlushes = 25;

/// What a writer says on its standard output after a flush: its number, the thread, the rows logged
/// so far. Shorter than what a pipe takes as one.
struct Told {
    int process;
    int thread;
    int rows;
};

[[noreturn]] void writeFor(int process, int thread) {
    const std::string name = std::to_string(process) + "." + std::to_string(thread);
    for (int rows = 0;;) {
        for (int i = 0; i < rowsPerFlush; ++i)
            performance::productStats::logEventTime(name, std::to_string(rows++));
        if (!performance::productStats::flush())
            _exit(2);
        const Told told{process, thread, rows};
        if (write(STDOUT_FILENO, &told, sizeof told) != sizeof told)
            _exit(3);
    }
}

[[noreturn]] void runWriter(int process) {
    std::vector<std::thread> pool;
    for (int thread = 1; thread < threads; ++thread)
        pool.emplace_back([=] { writeFor(process, thread); });
    writeFor(process, 0);
}

pid_t startWriter(int process, int output) {
    std::string program = "/proc/self/exe";
    std::string number = std::to_string(process);
    char* const arguments[] = {program.data(), number.data(), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    pid_t child = 0;
    if (posix_spawn(&child, program.c_str(), &actions, nullptr, arguments, environ) != 0)
        std::abort();
    posix_spawn_file_actions_destroy(&actions);
    return child;
}

using Rows = std::map<std::pair<int, int>, int>;

/// Kills each writer after a random number of what it told, not before each of its threads told
/// something, and reads on until the last is gone.
Rows killWriters(int input, std::vector<pid_t> writers) {
    std::mt19937 random(std::random_device{}());
    std::vector<int> left;
    for (int process = 0; process < processes; ++process)
        left.push_back(minimumFlushes + static_cast<int>(random() % minimumFlushes));
    std::vector<int> silent(processes, threads);
    Rows rows;
    for (Told told; read(input, &told, sizeof told) == sizeof told;) {
        const auto process = static_cast<std::size_t>(told.process);
        silent[process] -= rows.count({told.process, told.thread}) == 0;
        rows[{told.process, told.thread}] = told.rows;
        if (--left[process] <= 0 && silent[process] == 0)
            kill(writers[process], SIGKILL);
    }
    for (const pid_t writer : writers) {
        int status = 0;
        waitpid(writer, &status, 0);
        if (!WIFSIGNALED(status))
            std::printf("a writer ended by itself: %d\n", WEXITSTATUS(status)), std::exit(1);
    }
    return rows;
}

std::string ask(sqlite3* database, const std::string& sql) {
    std::string answer;
    const auto take = [](void* to, int, char** values, char**) {
        *static_cast<std::string*>(to) = values[0] ? values[0] : "";
        return 0;
    };
    if (sqlite3_exec(database, sql.c_str(), take, &answer, nullptr) != SQLITE_OK)
        return sqlite3_errmsg(database);
    return answer;
}

int check(const std::filesystem::path& file, const Rows& told) {
    sqlite3* database = nullptr;
    sqlite3_open(file.c_str(), &database);
    int failures = 0;
    if (const auto whole = ask(database, "PRAGMA integrity_check"); whole != "ok") {
        std::printf("integrity: %s\n", whole.c_str());
        ++failures;
    }
    long total = 0;
    for (const auto& [writer, rows] : told) {
        const std::string name = std::to_string(writer.first) + "." + std::to_string(writer.second);
        const std::string there =
            ask(database, "SELECT count(DISTINCT detail) FROM event WHERE name = '" + name +
                              "' AND CAST(detail AS INTEGER) < " + std::to_string(rows));
        total += rows;
        if (there != std::to_string(rows)) {
            std::printf("%s flushed %d rows, %s are there\n", name.c_str(), rows, there.c_str());
            ++failures;
        }
    }
    std::printf("%zu writers flushed %ld rows\n", told.size(), total);
    sqlite3_close(database);
    return failures + (told.size() == processes * threads ? 0 : 1);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2)
        runWriter(std::atoi(argv[1]));
    const auto folder =
        std::filesystem::temp_directory_path() / ("raw_product_stats " + std::to_string(getpid()));
    setenv("XDG_STATE_HOME", folder.c_str(), 1);
    int pipes[2];
    if (pipe2(pipes, O_CLOEXEC) != 0)
        return 1;
    std::vector<pid_t> writers;
    for (int process = 0; process < processes; ++process)
        writers.push_back(startWriter(process, pipes[1]));
    close(pipes[1]);
    const Rows told = killWriters(pipes[0], writers);
    const int failures = check(performance::productStats::databaseFile(), told);
    std::filesystem::remove_all(folder);
    return failures == 0 ? 0 : 1;
}
