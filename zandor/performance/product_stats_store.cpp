#include "zandor/performance/product_stats_store.hpp"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <iterator>
#include <stdexcept>
#include <system_error>

namespace performance::productStats {

namespace {

constexpr int lockWaitMilliseconds = 60'000;

constexpr const char* modes = R"sql(
PRAGMA journal_mode = WAL;
PRAGMA synchronous = NORMAL;
)sql";

constexpr const char* schema = R"sql(
BEGIN IMMEDIATE;
CREATE TABLE IF NOT EXISTS event(
    id INTEGER PRIMARY KEY,
    utc_ns INTEGER NOT NULL,
    kind TEXT NOT NULL CHECK (kind IN ('time', 'begin', 'end')),
    name TEXT NOT NULL,
    detail TEXT NOT NULL,
    pid INTEGER NOT NULL);
CREATE INDEX IF NOT EXISTS event_by_key ON event(pid, name, detail, kind, id);
CREATE VIEW IF NOT EXISTS interval AS
WITH paired AS (
    SELECT begun.*,
        (SELECT min(id) FROM event AS e WHERE e.kind = 'end' AND e.id > begun.id
            AND (e.pid, e.name, e.detail) = (begun.pid, begun.name, begun.detail)) AS end_id,
        (SELECT min(id) FROM event AS b WHERE b.kind = 'begin' AND b.id > begun.id
            AND (b.pid, b.name, b.detail) = (begun.pid, begun.name, begun.detail)) AS next_id
    FROM event AS begun WHERE kind = 'begin')
SELECT paired.pid, paired.name, paired.detail, paired.utc_ns AS begin_utc_ns,
    ended.utc_ns AS end_utc_ns, ended.utc_ns - paired.utc_ns AS duration_ns
FROM paired LEFT JOIN event AS ended
    ON ended.id = paired.end_id AND (paired.next_id IS NULL OR paired.end_id < paired.next_id);
COMMIT;
)sql";

constexpr const char* kindNames[] = {"time", "begin", "end"};

[[noreturn]] void throwErrno(const std::filesystem::path& path) {
    throw std::system_error(errno, std::generic_category(), path.string());
}

/// The folder with those above it, and the file, each for the user alone.
void makePrivate(const std::filesystem::path& file) {
    std::filesystem::path folder;
    for (const auto& part : file.parent_path()) {
        folder /= part;
        if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST &&
            !std::filesystem::exists(folder))
            throwErrno(folder);
    }
    const int descriptor = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (descriptor < 0)
        throwErrno(file);
    ::close(descriptor);
}

}  // namespace

void Store::Closer::operator()(sqlite3* database) const noexcept {
    sqlite3_close(database);
}

void Store::Finalizer::operator()(sqlite3_stmt* statement) const noexcept {
    sqlite3_finalize(statement);
}

Store::Store(const std::filesystem::path& file) : file_(file) {
    makePrivate(file);
    sqlite3* database = nullptr;
    const int opened = sqlite3_open_v2(file.c_str(), &database,
                                       SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
    database_.reset(database);
    check(opened);
    sqlite3_busy_timeout(database, lockWaitMilliseconds);
    executeWhenFree(modes);
    executeWhenFree(schema);
}

void Store::write(std::span<const Row> rows) {
    executeWhenFree("BEGIN IMMEDIATE");
    try {
        sqlite3_stmt* prepared = nullptr;
        check(sqlite3_prepare_v2(
            database_.get(),
            "INSERT INTO event(utc_ns, kind, name, detail, pid) VALUES (?, ?, ?, ?, ?)", -1,
            &prepared, nullptr));
        const Statement statement(prepared);
        for (const Row& row : rows)
            insert(statement.get(), row);
        execute("COMMIT");
    } catch (...) {
        sqlite3_exec(database_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
        throw;
    }
}

void Store::insert(sqlite3_stmt* statement, const Row& row) {
    const auto bindText = [&](int column, const std::string& text) {
        check(sqlite3_bind_text64(statement, column, text.data(), text.size(), SQLITE_STATIC,
                                  SQLITE_UTF8));
    };
    check(sqlite3_bind_int64(statement, 1, row.utc));
    check(
        sqlite3_bind_text(statement, 2, kindNames[static_cast<int>(row.kind)], -1, SQLITE_STATIC));
    bindText(3, row.name);
    bindText(4, row.detail);
    check(sqlite3_bind_int64(statement, 5, row.process));
    if (const int result = sqlite3_step(statement); result != SQLITE_DONE)
        check(result);
    check(sqlite3_reset(statement));
}

void Store::execute(const char* sql) {
    check(sqlite3_exec(database_.get(), sql, nullptr, nullptr, nullptr));
}

/// SQLite itself does not wait for others where it changes the journal's mode or recovers what a
/// killed process left.
void Store::executeWhenFree(const char* sql) {
    using std::chrono::steady_clock;
    const auto deadline = steady_clock::now() + std::chrono::milliseconds(lockWaitMilliseconds);
    for (;;) {
        const int result = sqlite3_exec(database_.get(), sql, nullptr, nullptr, nullptr);
        if (result != SQLITE_BUSY || steady_clock::now() > deadline)
            return check(result);
        if (!sqlite3_get_autocommit(database_.get()))
            execute("ROLLBACK");
        sqlite3_sleep(5);
    }
}

void Store::check(int result) const {
    if (result == SQLITE_OK)
        return;
    const char* words = database_ ? sqlite3_errmsg(database_.get()) : sqlite3_errstr(result);
    throw std::runtime_error(file_.string() + ": " + words);
}

}  // namespace performance::productStats
