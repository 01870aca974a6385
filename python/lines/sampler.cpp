#include "sampler.hpp"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <system_error>

#include "own_memory.hpp"
#include "zandor/instrument/clock.hpp"

namespace vantrace {

namespace {

using instrument::LineTime;
namespace clock = instrument::clock;

// A list that changes under its reader may lead anywhere, in a circle too.
constexpr int mostThreads = 4096;
constexpr int deepestStack = 200;
// A period is this long, or so small a part of all; so there are few, however long the run.
constexpr std::int64_t shortestPeriod = 10'000'000;
constexpr std::int64_t periodsOfRun = 256;
// Ticks come at irregular intervals, lest they keep step with what the program does.
constexpr std::uint32_t shortestWait = 500;  // microseconds
constexpr std::uint32_t waits = 1000;
// Code that a program makes again and again is found anew each time.
constexpr std::size_t mostPlaces = 100'000;

/// Has the new thread take none of the process's signals.
std::thread startWithoutSignals(auto work) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
        std::thread thread(work);
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        pthread_setname_np(thread.native_handle(), "vantrace lines");
        return thread;
    } catch (...) {
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        throw;
    }
}

std::uint64_t keyOf(std::uint32_t thread, std::uint32_t line) noexcept {
    return std::uint64_t{thread} << 32 | line;
}

}  // namespace

void checkMemoryIsReadable() {
    const int known = 1;
    if (int copy = 0; !readOwnMemory(&known, &copy, sizeof copy))
        throw std::system_error(errno, std::generic_category(),
                                "lines cannot be sampled: process_vm_readv");
}

Sampler::Sampler(Selection selection, const std::optional<std::filesystem::path>& folder)
    : interpreter_(PyInterpreterState_Get()),
      starter_(PyThreadState_Get()),
      startersThread_(thisThread()),
      process_(getpid()),
      codes_(std::move(selection)),
      begin_(clock::now()),
      latest_(begin_) {
    checkMemoryIsReadable();
    period_.begin = begin_;
    if (folder)
        file_.emplace(*folder);
    thread_ = startWithoutSignals([this] { run(); });
}

void Sampler::stop() {
    if (!isOurs() || !thread_.joinable())
        return;
    {
        const std::lock_guard lock(mutex_);
        isStopping_ = true;
    }
    stopping_.notify_all();
    thread_.join();
}

bool Sampler::isOurs() const noexcept {
    return getpid() == process_;
}

std::optional<std::filesystem::path> Sampler::file() const {
    return file_ ? std::optional(file_->path()) : std::nullopt;
}

void Sampler::run() noexcept {
    try {
        while (isWhole_ && waitForTick())
            lookAtThreads();
        endPeriod();
    } catch (const std::exception&) {
        isWhole_ = false;  // out of memory: what there is stays
    }
}

bool Sampler::waitForTick() {
    irregular_ ^= irregular_ << 13;
    irregular_ ^= irregular_ >> 17;
    irregular_ ^= irregular_ << 5;
    const std::chrono::microseconds wait(shortestWait + irregular_ % waits);
    std::unique_lock lock(mutex_);
    return !stopping_.wait_for(lock, wait, [this] { return isStopping_; });
}

void Sampler::lookAtThreads() {
    const std::int64_t now = clock::now();
    elapsed_ = now - std::exchange(latest_, now);
    ++tick_;
    ++period_.ticks;
    const PyThreadState* const holder = _PyThreadState_UncheckedGet();
    const PyThreadState* address =
        PyInterpreterState_ThreadHead(const_cast<PyInterpreterState*>(interpreter_));
    for (int i = 0; i < mostThreads && address; ++i) {
        const auto copy = valueAt<PyThreadState>(address);
        if (!copy || copy->interp != interpreter_)
            break;  // freed meanwhile
        lookAt(address, *copy, address == holder);
        address = copy->next;
    }
    if (now - period_.begin >= std::max(shortestPeriod, (now - begin_) / periodsOfRun))
        endPeriod();
}

void Sampler::lookAt(const PyThreadState* address, const PyThreadState& copy, bool isHolder) {
    SampledThread* const known = threadOf(address, copy);
    if (!known)
        return;
    const std::int64_t cpu = cpuTimeOf(known->thread);
    const std::int64_t cpuBefore = std::exchange(known->cpu, cpu);
    const bool wasSeen = std::exchange(known->tick, tick_) + 1 == tick_;
    // One that had no CPU time since is where it was.
    if (!wasSeen || isHolder || cpu != cpuBefore)
        known->line = lineOf(copy);
    if (!wasSeen)
        return;
    LineTime time{known->number, LineTime::allLines, elapsed_,
                  std::clamp<std::int64_t>(cpu - cpuBefore, 0, elapsed_), isHolder ? elapsed_ : 0};
    addTime(time);
    if (known->line) {
        time.line = *known->line;
        addTime(time);
    }
}

/// Null for a thread that is about to begin: it has no frame, and still the system's number of the
/// one that made it.
SampledThread* Sampler::threadOf(const PyThreadState* address, const PyThreadState& copy) {
    if (const auto known = threads_.find(copy.id); known != threads_.end())
        return &known->second;
    const auto top = valueAt<_PyCFrame>(copy.cframe);
    if (!top || !top->current_frame)
        return nullptr;
    SampledThread& made = threads_[copy.id];
    // In a child after fork the interpreter has the number that the thread had in its parent.
    made.thread = address == starter_ ? startersThread_ : static_cast<pid_t>(copy.native_thread_id);
    made.number =
        stream_.addThread(static_cast<std::uint64_t>(made.thread), kernelNameOf(made.thread));
    return &made;
}

/// The line of the innermost function that is not skipped.
std::optional<std::uint32_t> Sampler::lineOf(const PyThreadState& copy) {
    const auto top = valueAt<_PyCFrame>(copy.cframe);
    const Frame* address = top ? top->current_frame : nullptr;
    for (int depth = 0; address && depth < deepestStack; ++depth) {
        const auto frame = valueAt<Frame>(address);
        const Place place = frame ? codes_.placeOf(*frame) : Place();
        if (!place.code) {
            ++period_.misread;
            return std::nullopt;
        }
        if (!place.code->isSkipped)
            return numberOf(place);
        address = frame->previous;
    }
    return std::nullopt;
}

std::uint32_t Sampler::numberOf(const Place& place) {
    const Key key = place.number << 32 | place.offset;
    if (const auto known = linesOfPlaces_.find(key); known != linesOfPlaces_.end())
        return known->second;
    const auto line = static_cast<std::uint32_t>(std::max(place.code->lineAt(place.offset), 0));
    const std::string name =
        place.code->file + '\0' + place.code->function + '\0' + std::to_string(line);
    const auto [number, isNew] = lines_.try_emplace(name, 0);
    if (isNew)
        number->second = stream_.addLine({place.code->file, place.code->function, line,
                                          std::string(texts_.textOf(place.code->file, line))});
    if (linesOfPlaces_.size() >= mostPlaces)
        linesOfPlaces_.clear();
    return linesOfPlaces_[key] = number->second;
}

void Sampler::addTime(const LineTime& time) {
    const auto [sum, isNew] = times_.try_emplace(keyOf(time.thread, time.line), time);
    if (isNew)
        return;
    sum->second.self += time.self;
    sum->second.cpu += time.cpu;
    sum->second.held += time.held;
}

void Sampler::endPeriod() {
    period_.end = latest_;
    std::vector<LineTime> times;
    times.reserve(times_.size());
    for (const auto& [key, time] : times_)
        times.push_back(time);
    stream_.addPeriod(period_, times);
    times_.clear();
    period_ = {latest_, latest_, 0, 0};
    forgetGoneThreads();
    if (file_) {
        isWhole_ = file_->append(stream_.bytes());
        stream_.forget();
    }
}

void Sampler::forgetGoneThreads() {
    std::erase_if(threads_, [this](const auto& entry) { return entry.second.tick + 1 < tick_; });
}

}  // namespace vantrace
