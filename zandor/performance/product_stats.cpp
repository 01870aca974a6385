#include "zandor/performance/product_stats.hpp"

#include <pthread.h>
#include <pwd.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <new>
#include <stdexcept>
#include <vector>

#include "zandor/performance/product_stats_queue.hpp"

namespace performance::productStats {

namespace {

/// The process's queue. It is never destroyed, since threads may outlast static objects; a child
/// after fork leaves its parent's behind and has one of its own.
class ProcessQueue {
  public:
    static Queue& get() {
        Queue* made = current_.load(std::memory_order_acquire);
        return made ? *made : first();
    }

  private:
    static Queue& first() {
        std::lock_guard hold(creation_);
        if (!current_.load(std::memory_order_relaxed)) {
            current_.store(make(nullptr), std::memory_order_release);
            std::atexit([] { get().close(); });
        }
        return get();
    }

    static void lockForFork() {
        creation_.lock();
        if (Queue* queue = current_.load(std::memory_order_relaxed))
            queue->lockForFork();
    }
    static void unlockInParent() {
        if (Queue* queue = current_.load(std::memory_order_relaxed))
            queue->unlockAfterFork();
        creation_.unlock();
    }
    static void unlockInChild() {
        if (Queue* parents = current_.load(std::memory_order_relaxed))
            current_.store(make(parents), std::memory_order_release);
        creation_.unlock();
    }

    static Queue* make(const Queue* parents) { return std::make_unique<Queue>(parents).release(); }

    /// Stored by release under `creation_`, read by acquire in `get`: who sees a queue sees it
    /// whole. Relaxed under the lock.
    static constinit std::atomic<Queue*> current_;
    /// Held around a fork: a child would wait for ever for another thread that makes the queue.
    static constinit std::mutex creation_;
    static const int watchesForks_;
};

constinit std::atomic<Queue*> ProcessQueue::current_{nullptr};
constinit std::mutex ProcessQueue::creation_;
const int ProcessQueue::watchesForks_ =
    pthread_atfork(&lockForFork, &unlockInParent, &unlockInChild);

void log(Kind kind, const std::string& name, const std::string& detail) {
    const auto utc = std::chrono::system_clock::now().time_since_epoch();
    Queue& queue = ProcessQueue::get();
    try {
        queue.add({std::chrono::duration_cast<std::chrono::nanoseconds>(utc).count(), kind, name,
                   detail, ::getpid()});
    } catch (const std::bad_alloc&) {
        queue.drop();
    }
}

std::filesystem::path home() {
    if (const char* set = std::getenv("HOME"); set && *set == '/')
        return set;
    std::vector<char> buffer(1 << 14);
    passwd entry{};
    passwd* found = nullptr;
    if (getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found)
        return found->pw_dir;
    throw std::runtime_error("the user has no home folder");
}

std::filesystem::path stateFolder() {
    const char* set = std::getenv("XDG_STATE_HOME");
    return set && *set == '/' ? std::filesystem::path(set) : home() / ".local" / "state";
}

}  // namespace

void logEventTime(const std::string& name, const std::string& detail) {
    log(Kind::time, name, detail);
}

void logEventBeginTime(const std::string& name, const std::string& detail) {
    log(Kind::begin, name, detail);
}

void logEventEndTime(const std::string& name, const std::string& detail) {
    log(Kind::end, name, detail);
}

bool flush() {
    ProcessQueue::get().flush();
    return droppedRows() == 0;
}

std::uint64_t droppedRows() {
    return ProcessQueue::get().dropped();
}

std::filesystem::path databaseFile() {
    return stateFolder() / "vantrace" / "product_stats.db";
}

}  // namespace performance::productStats
