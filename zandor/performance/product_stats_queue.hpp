// The queue between those who log product statistics and the thread that writes them.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "zandor/performance/export.hpp"
#include "zandor/performance/product_stats_store.hpp"

namespace performance::productStats {

/// Bounded: rows beyond it are dropped and counted. From any thread.
class ZANDOR_PERFORMANCE_API Queue {
  public:
    static constexpr std::size_t capacity = 1 << 16;

    Queue() = default;
    /// The queue of a child, which leaves its parent's as it was.
    explicit Queue(const Queue* parents) : parents_(parents) {}
    ~Queue() { close(); }
    Queue(const Queue&) = delete;
    Queue& operator=(const Queue&) = delete;

    /// Starts the writing thread with the first row.
    void add(Row row);
    /// Waits until all that was added before is written or dropped.
    void flush();
    /// Writes what is left and ends the thread; later rows are dropped.
    void close();
    /// Counts a row that there was no memory for.
    void drop() noexcept;
    std::uint64_t dropped() const;

    // A fork waits for the rows that are being written and closes the database, since SQLite's
    // record of a process's locks is of no use in a child; so the child finds a whole queue to
    // leave behind, and no database open.
    void lockForFork() {
        storeLock_.lock();
        store_.reset();
        lock_.lock();
    }
    void unlockAfterFork() {
        lock_.unlock();
        storeLock_.unlock();
    }

  private:
    void startWriter();
    void run();
    /// Says why rows were not written, once.
    void tell();
    /// Empty when the rows are written; else why not.
    std::string write(const std::vector<Row>& rows);

    [[maybe_unused]] const Queue* const parents_ = nullptr;  // still somebody's, so not lost
    std::mutex storeLock_;                                   // taken before the other
    std::unique_ptr<Store> store_;
    mutable std::mutex lock_;
    std::condition_variable rowsCame_;
    std::condition_variable rowsWent_;
    std::thread writer_;  // from the first row on until the queue is closed
    std::vector<Row> rows_;
    std::uint64_t added_ = 0;  // rows that entered the queue
    std::uint64_t done_ = 0;   // of these, written or dropped
    std::uint64_t dropped_ = 0;
    bool closed_ = false;
    bool told_ = false;
    std::string untold_;  // why rows were not written, until somebody says so
};

}  // namespace performance::productStats
