#include "source_info.hpp"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <new>

#include "blocks.hpp"
#include "run_file.hpp"

namespace instrument::detail {
namespace {

// Not wiped on fork: a child's sources have new ids. Relaxed: only distinctness counts.
constinit std::atomic<std::uint64_t> latestSourceId{0};

constexpr std::size_t nameSize = 64;

std::uint64_t thisThreadId() noexcept {
    return static_cast<std::uint64_t>(syscall(SYS_gettid));
}

const InternedText* ownKernelName() noexcept {
    char name[nameSize] = {};
    prctl(PR_GET_NAME, name, 0, 0, 0);
    return intern(name);
}

const InternedText* kernelNameOf(std::uint64_t threadId) noexcept {
    char path[64];
    std::snprintf(path, sizeof path, "/proc/self/task/%llu/comm",
                  static_cast<unsigned long long>(threadId));
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0)
        return nullptr;
    char name[nameSize];
    const ssize_t length = read(file, name, sizeof name);
    close(file);
    if (length <= 0)
        return nullptr;
    return intern({name, static_cast<std::size_t>(length) - (name[length - 1] == '\n')});
}

}  // namespace

constinit std::atomic<std::uint64_t> firstSourceId{0};

void beginSources() noexcept {
    firstSourceId.store(latestSourceId.load(std::memory_order_relaxed) + 1,
                        std::memory_order_relaxed);
}

SourceInfo* makeSource() noexcept {
    void* memory = allocateBlock(sizeof(SourceInfo));
    if (!memory)
        return nullptr;
    auto* info = ::new (memory) SourceInfo{};
    info->references.store(1, std::memory_order_relaxed);
    info->id = latestSourceId.fetch_add(1, std::memory_order_relaxed) + 1;
    return info;
}

SourceInfo* makeThreadSource(const InternedText* givenName) noexcept {
    SourceInfo* info = makeSource();
    if (!info)
        return nullptr;
    info->alive.store(true, std::memory_order_relaxed);
    info->processId = static_cast<std::uint64_t>(getpid());
    info->threadId = thisThreadId();
    info->givenName.store(givenName, std::memory_order_relaxed);
    info->kernelName.store(ownKernelName(), std::memory_order_relaxed);
    return info;
}

void endThreadSource(SourceInfo& info) noexcept {
    // Release pairs with the acquire in name: names are immortal, but their characters must be
    // seen.
    info.kernelName.store(ownKernelName(), std::memory_order_release);
    info.alive.store(false, std::memory_order_release);
    journalChanges(info);
}

std::string_view SourceInfo::name() noexcept {
    // Pairs with the release where the thread is named.
    if (const InternedText* given = givenName.load(std::memory_order_acquire))
        return given->view();
    if (alive.load(std::memory_order_acquire)) {
        const bool own = threadId == thisThreadId();
        const InternedText* now = own ? ownKernelName() : kernelNameOf(threadId);
        // Looked at again: another thread may have the ended one's number by now.
        if (now && alive.load(std::memory_order_acquire))
            return now->view();
    }
    const InternedText* kept = kernelName.load(std::memory_order_acquire);
    return kept ? kept->view() : std::string_view();
}

void SourcePtr::release(SourceInfo* info) noexcept {
    // Each release pairs with the acquire of the last one.
    if (info && info->references.fetch_sub(1, std::memory_order_acq_rel) == 1)
        freeBlock(info, sizeof(SourceInfo));
}

}  // namespace instrument::detail
