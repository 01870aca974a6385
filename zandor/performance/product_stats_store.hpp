// The database of product statistics.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <span>
#include <string>

#include "zandor/performance/export.hpp"

struct sqlite3;
struct sqlite3_stmt;

namespace performance::productStats {

enum class Kind : std::uint8_t { time, begin, end };

struct Row {
    std::int64_t utc;  ///< nanoseconds
    Kind kind;
    std::string name;
    std::string detail;
    pid_t process;
};

/// One connection, for one thread.
class ZANDOR_PERFORMANCE_API Store {
  public:
    /// Opens or makes the database, readable by the user alone. Throws std::system_error and
    /// std::runtime_error.
    explicit Store(const std::filesystem::path& file);

    /// All of the rows, or none of them and std::runtime_error.
    void write(std::span<const Row> rows);

  private:
    struct ZANDOR_PERFORMANCE_API Closer {
        void operator()(sqlite3* database) const noexcept;
    };
    struct Finalizer {
        void operator()(sqlite3_stmt* statement) const noexcept;
    };
    using Statement = std::unique_ptr<sqlite3_stmt, Finalizer>;

    void execute(const char* sql);
    void executeWhenFree(const char* sql);
    void insert(sqlite3_stmt* statement, const Row& row);
    void check(int result) const;

    std::filesystem::path file_;
    std::unique_ptr<sqlite3, Closer> database_;
};

}  // namespace performance::productStats
