#include "zandor/performance/product_stats.hpp"

#include <pthread.h>
#include <pwd.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
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
        static ProcessQueue process;
        return *process.current().load(std::memory_order_acquire);
    }

  private:
    ProcessQueue() {
        current().store(make(nullptr), std::memory_order_release);
        pthread_atfork([] { get().lockForFork(); }, [] { get().unlockAfterFork(); },
                       [] { current().store(make(&get()), std::memory_order_release); });
        std::atexit([] { get().close(); });
    }

    /// Published by release, read by acquire in `get`: who sees a queue sees it whole.
    static std::atomic<Queue*>& current() {
        static std::atomic<Queue*> queue{nullptr};
        return queue;
    }

    static Queue* make(const Queue* parents) { return std::make_unique<Queue>(parents).release(); }
};

void log(Kind kind, const std::string& name, const std::string& detail) {
    const auto utc = std::chrono::system_clock::now().time_since_epoch();
    ProcessQueue::get().add({std::chrono::duration_cast<std::chrono::nanoseconds>(utc).count(),
                             kind, name, detail, ::getpid()});
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
