// The state of the tracing of functions. Guarded by the interpreter's lock.
#pragma once

#include <cstdint>

#include "../src/python_api.hpp"
#include "selection.hpp"
#include "zandor/instrument/control_element.hpp"

namespace vantrace {

/// Trivially destroyed: frames run until the very end of the process.
struct Tracing {
    static constexpr std::uint32_t noSession = ~std::uint32_t{0};
    /// The present session while the frame-evaluation hook makes events.
    std::uint32_t hooked = noSession;
    /// Why the profile hook stands in for that one; null where it does not.
    const char* withoutHook = nullptr;
    bool withCCalls = false;
    /// Whether our hook is in the interpreter's chain of hooks: the latest, or behind others.
    bool isInChain = false;
    bool isHooked() const noexcept { return hooked != noSession; }
    std::uint32_t session = 0;  ///< counts the beginnings; functions are decided about in each
    int users = 0;
    int deepThreads = 0;                  ///< for which the hook is taken out
    _PyFrameEvalFunction next = nullptr;  ///< the hook that was there before, or the evaluator
    const Selection* selection = nullptr;
    const instrument::Opaque* import = nullptr;
    const instrument::Opaque* tooDeep = nullptr;
    const PyCodeObject* awaited = nullptr;  ///< is set to null when the hook sees it
    /// The program begins above the frame of this code, where it has one; owned for good.
    const PyCodeObject* base = nullptr;

    // Of the present session.
    std::uint64_t collapsedCalls = 0;  ///< calls whose time is their callers'
    std::uint64_t failedCalls = 0;     ///< calls that were not seen for want of memory
    std::uint64_t deepStretches = 0;   ///< times that recursion was too deep to trace
    std::int64_t deepTime = 0;         ///< nanoseconds of these
    bool wasTakenOut = false;          ///< another tool removed the hook while it was in use
    bool hadOtherProfile = false;      ///< a thread had another profile function in the end
};

extern constinit Tracing tracing;

/// Begins a session, or joins the one there is. With C calls, these are events too. Throws
/// PythonError.
void startTracing(Selection selection, bool withCCalls);
/// Leaves it; the last one ends it.
void stopTracing();

}  // namespace vantrace
