// What is known about a source of events: a thread for one host virtual machine, or a thread of
// another process. Counted by references, because recordings outlive threads.
#pragma once

#include <atomic>
#include <cstdint>
#include <string_view>
#include <utility>

#include "interned_text.hpp"
#include "zandor/instrument/export.hpp"

namespace instrument::detail {

struct SourceInfo {
    /// Who adds one has one: relaxed.
    std::atomic<std::uint32_t> references;
    /// Of a thread of this process that has not ended: the kernel still knows its name. Relaxed
    /// where the source is made, as are the names: whoever finds it does so by a release.
    std::atomic<bool> alive;
    std::uint64_t id;
    /// The system's own ids.
    std::uint64_t processId;
    std::uint64_t threadId;
    /// Of another process; null for this one.
    const InternedText* processName;
    /// What the program said; null when it said nothing. Released where the thread is named,
    /// acquired in `name`; relaxed where the source is made.
    std::atomic<const InternedText*> givenName;
    /// What the kernel said when it was asked last. Released and acquired as the one above; relaxed
    /// where the source is made.
    std::atomic<const InternedText*> kernelName;
    /// The recording whose file told of it last. Relaxed: to tell of a source twice does no harm.
    std::atomic<std::uint64_t> journaled;
    /// In the table of external sources.
    std::atomic<SourceInfo*> next;
    SourceInfo* retired;

    /// The name as it is now; stays for the life of the process. Asks the kernel where nobody gave
    /// the thread a name and it lives.
    ZANDOR_INSTRUMENT_API std::string_view name() noexcept;
};

/// Keeps a SourceInfo. Copying is safe in signal handlers.
class SourcePtr {
  public:
    SourcePtr() noexcept = default;
    /// Shares `info`, which somebody else keeps now.
    explicit SourcePtr(SourceInfo* info) noexcept : info_(info) { retain(info); }
    SourcePtr(const SourcePtr& other) noexcept : SourcePtr(other.info_) {}
    SourcePtr(SourcePtr&& other) noexcept : info_(std::exchange(other.info_, nullptr)) {}
    SourcePtr& operator=(SourcePtr other) noexcept {
        std::swap(info_, other.info_);
        return *this;
    }
    ~SourcePtr() { release(info_); }

    SourceInfo* get() const noexcept { return info_; }
    SourceInfo& operator*() const noexcept { return *info_; }
    SourceInfo* operator->() const noexcept { return info_; }
    explicit operator bool() const noexcept { return info_ != nullptr; }

    static void retain(SourceInfo* info) noexcept {
        if (info)
            info->references.fetch_add(1, std::memory_order_relaxed);
    }
    ZANDOR_INSTRUMENT_API static void release(SourceInfo* info) noexcept;

  private:
    SourceInfo* info_ = nullptr;
};

/// The first source of this process; those below are its parent's. Relaxed: a thread of a child
/// sees it at its first event.
extern constinit std::atomic<std::uint64_t> firstSourceId;
void beginSources() noexcept;

/// A new source with one reference, which the caller owns; null when the system gives no memory.
SourceInfo* makeSource() noexcept;
/// The same for the calling thread.
SourceInfo* makeThreadSource(const InternedText* givenName) noexcept;
/// Marks the calling thread's source as ended and keeps the kernel's name for it.
void endThreadSource(SourceInfo& info) noexcept;

/// The source of an external thread for the delivery of an event: the one that addExternalSource
/// made, or a nameless one of that id. Empty when the system gives no memory.
SourcePtr externalSource(std::uint64_t id) noexcept;

}  // namespace instrument::detail
