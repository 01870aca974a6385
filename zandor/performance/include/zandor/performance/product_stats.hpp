// Product statistics: which events of the product happened when, kept over runs.
//
// Rows go through a bounded queue to a background thread, which writes them to an SQLite database
// (WAL) in the user's state folder: $XDG_STATE_HOME/vantrace/product_stats.db, or below
// ~/.local/state. Several processes write at once; a forked child opens the database for itself.
// Table `event`: utc_ns, kind ("time", "begin", "end"), name, detail, pid; view `interval` pairs
// begins with ends.
//
// Logging never fails and never waits: where the queue is full or the database cannot be written,
// rows are dropped and counted, and the console has one line. From any thread.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "zandor/performance/export.hpp"

namespace performance::productStats {

ZANDOR_PERFORMANCE_API void logEventTime(const std::string& name, const std::string& detail);
ZANDOR_PERFORMANCE_API void logEventBeginTime(const std::string& name, const std::string& detail);
ZANDOR_PERFORMANCE_API void logEventEndTime(const std::string& name, const std::string& detail);

/// Waits until every row that was logged before is written or dropped; true when none was dropped
/// since the process began. Done at exit, too.
ZANDOR_PERFORMANCE_API bool flush();

/// Rows that were dropped in this process.
ZANDOR_PERFORMANCE_API std::uint64_t droppedRows();

/// Where the database stands. Throws std::runtime_error when the user has no home.
ZANDOR_PERFORMANCE_API std::filesystem::path databaseFile();

}  // namespace performance::productStats
