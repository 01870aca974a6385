// What the library keeps for this process and never for its children.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "zandor/instrument/lock.hpp"

namespace instrument::detail {

struct ListenerArray;
struct RuleList;
struct RunFile;
struct SourceInfo;

struct FreeBlock {
    FreeBlock* next;
};

/// All-zero is its first state. Locks are leaves: nobody takes another, or runs code of others,
/// while holding one (but for blocks and texts, which are taken last).
struct ProcessState {
    static constexpr std::size_t blockSizes = 8;
    static constexpr std::size_t externalBuckets = 64;

    /// Whether this process has seen that it is one; a child finds it false. Relaxed where it is
    /// only looked at: the exchange makes the first one.
    std::atomic<bool> entered{false};
    /// Events produced inside listeners. Relaxed, as the two below: they only count.
    std::atomic<std::uint64_t> suppressedEvents{0};
    /// States of threads that are in use, and that were ever made for a thread; relaxed.
    std::atomic<std::uint64_t> threadStates{0};
    std::atomic<std::uint64_t> threadStatesMade{0};

    Lock listeners;
    ListenerArray* retiredListeners = nullptr;

    Lock controls;
    RuleList* retiredRules = nullptr;

    Lock sources;
    /// Chains, changed under the lock: released there, acquired by who follows one in a
    /// ReadSection. Relaxed under the lock.
    std::atomic<SourceInfo*> externalSources[externalBuckets]{};
    SourceInfo* retiredSources = nullptr;

    Lock externalAccounts;
    bool hasExternalAccounts = false;

    Lock texts;
    RunFile* runFiles = nullptr;  ///< that are written to; under the texts' lock
    Lock clock;

    Lock blocks;
    FreeBlock* freeBlocks[blockSizes]{};
    std::byte* regionNext = nullptr;
    std::byte* regionEnd = nullptr;
};

ProcessState& processState() noexcept;

}  // namespace instrument::detail
