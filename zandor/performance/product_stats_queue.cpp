#include "zandor/performance/product_stats_queue.hpp"

#include <pthread.h>
#include <signal.h>

#include <exception>
#include <new>
#include <utility>

#include "zandor/performance/product_stats.hpp"
#include "zandor/performance/terminal_text.hpp"
#include "zandor/runtime/console.hpp"

namespace performance::productStats {

namespace {

std::string wordsOf(const std::exception& error) noexcept {
    try {
        return error.what();
    } catch (const std::bad_alloc&) {
        return "no memory";  // which is short enough to need none
    }
}

}  // namespace

void Queue::add(Row row) {
    std::unique_lock held(lock_);
    if (closed_ || rows_.size() >= capacity) {
        ++dropped_;
        return;
    }
    rows_.push_back(std::move(row));
    ++added_;
    if (!writer_.joinable())
        startWriter();
    held.unlock();
    rowsCame_.notify_one();
    tell();
}

/// Not on the writing thread: the console may need what whoever waits for that thread holds.
void Queue::tell() {
    std::unique_lock held(lock_);
    const std::string why = std::exchange(untold_, {});
    held.unlock();
    if (!why.empty())
        utPrintf("vantrace: product statistics are not kept: %s\n",
                 instrument::detail::withoutControls(why).c_str());
}

/// The program's signals stay with its own threads.
void Queue::startWriter() {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
        writer_ = std::thread([this] { run(); });
    } catch (const std::exception&) {
        dropped_ += rows_.size();
        done_ += rows_.size();
        rows_.clear();
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void Queue::flush() {
    std::unique_lock held(lock_);
    rowsWent_.wait(held, [this, upTo = added_] { return done_ >= upTo; });
    held.unlock();
    tell();
}

void Queue::close() {
    std::unique_lock held(lock_);
    closed_ = true;
    std::thread writer = std::move(writer_);
    held.unlock();
    rowsCame_.notify_one();
    if (writer.joinable())
        writer.join();
    tell();
}

void Queue::drop() noexcept {
    const std::lock_guard guard(lock_);
    ++dropped_;
}

std::uint64_t Queue::dropped() const {
    const std::lock_guard guard(lock_);
    return dropped_;
}

void Queue::run() {
    std::unique_lock held(lock_);
    for (;;) {
        rowsCame_.wait(held, [this] { return closed_ || !rows_.empty(); });
        if (rows_.empty())
            break;
        const std::vector<Row> rows = std::exchange(rows_, {});
        held.unlock();
        const std::string why = write(rows);
        held.lock();
        done_ += rows.size();
        if (why.empty()) {
            rowsWent_.notify_all();
            continue;
        }
        dropped_ += rows.size();
        if (!std::exchange(told_, true))
            untold_ = why;
        rowsWent_.notify_all();
    }
}

std::string Queue::write(const std::vector<Row>& rows) {
    const std::lock_guard guard(storeLock_);
    try {
        if (!store_)
            store_ = std::make_unique<Store>(databaseFile());
        store_->write(rows);
        return {};
    } catch (const std::exception& error) {
        store_.reset();  // the next rows try anew
        return wordsOf(error);
    }
}

}  // namespace performance::productStats
