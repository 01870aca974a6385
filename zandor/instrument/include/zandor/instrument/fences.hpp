// Fences for protocols whose one side runs on every event and whose other side is rare.
//
// Each side stores, fences, then loads what the other stored: at least one of them sees the other's
// store. The frequent side's fence costs nothing where the kernel offers to fence all threads of
// the process for the rare side.
#pragma once

#include <atomic>

#include "zandor/instrument/export.hpp"

namespace instrument::detail {

/// Whether heavyFence fences every thread. Goes up once and stays, before a heavyFence relies on
/// it; read relaxed, since whoever still sees it down fences for itself.
extern ZANDOR_INSTRUMENT_API constinit std::atomic<bool> heavyFenceReachesAll;

inline void lightFence() noexcept {
    if (heavyFenceReachesAll.load(std::memory_order_relaxed)) [[likely]]
        std::atomic_signal_fence(std::memory_order_seq_cst);
    else
        std::atomic_thread_fence(std::memory_order_seq_cst);
}

ZANDOR_INSTRUMENT_API void heavyFence() noexcept;

}  // namespace instrument::detail
