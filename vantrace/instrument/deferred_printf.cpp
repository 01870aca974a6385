#include "vantrace/instrument/deferred_printf.hpp"

#include <pthread.h>
#include <tbb/concurrent_queue.h>

#include <cstdarg>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <thread>

#include "vantrace/instrument/line_format.hpp"
#include "zandor/runtime/console.hpp"

namespace instrument {

namespace {

class DeferredLines {
  public:
    DeferredLines() { pthread_atfork(nullptr, nullptr, afterFork); }
    ~DeferredLines() { printPending(); }
    DeferredLines(const DeferredLines&) = delete;
    DeferredLines& operator=(const DeferredLines&) = delete;

    void print(const char* line) {
        std::call_once(threadIsChosen_, [this] { printingThread_ = std::this_thread::get_id(); });
        std::call_once(queueIsMade_, [this] { pending_ = std::make_unique<Queue>(); });
        if (std::this_thread::get_id() != printingThread_) {
            push(line);
            return;
        }
        printPending();
        utPrintf("%s", line);
    }

  private:
    // The usual allocator: of the library's own, the thread sanitizer does not see that pages pass
    // from one thread to another.
    using Queue = tbb::concurrent_queue<std::string, std::allocator<std::string>>;

    /// Without memory the line is lost, rather than the event that it tells of.
    void push(const char* line) noexcept {
        try {
            pending_->push(line);
        } catch (const std::bad_alloc&) {
        }
    }

    /// Those that wait by now: threads that push faster than the console takes lines would hold
    /// this one for good.
    void printPending() {
        if (!pending_)
            return;
        std::string line;
        for (auto count = pending_->unsafe_size(); count > 0 && pending_->try_pop(line); --count)
            utPrintf("%s", line.c_str());
    }

    /// The parent's queue may be in the middle of a change by a thread that is not here.
    static void afterFork();

    std::once_flag threadIsChosen_;
    std::once_flag queueIsMade_;
    std::thread::id printingThread_;
    std::unique_ptr<Queue> pending_;
};

DeferredLines& lines() {
    static DeferredLines lines;
    return lines;
}

void DeferredLines::afterFork() {
    DeferredLines& child = lines();
    if (!child.pending_)
        return;
    child.printingThread_ = std::this_thread::get_id();
    [[maybe_unused]] const Queue* parents = child.pending_.release();
    child.pending_ = std::make_unique<Queue>();
}

}  // namespace

int deferredPrintf(const char* format, ...) {
    char line[2048];
    std::va_list arguments;
    va_start(arguments, format);
    const int length = vantrace::formatLine(line, sizeof line, format, arguments);
    va_end(arguments);
    lines().print(line);
    return length;
}

void outliveByDeferredLines() {
    lines();
}

}  // namespace instrument
