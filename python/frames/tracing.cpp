#include "tracing.hpp"

#include <memory>
#include <utility>

#include "../src/errors.hpp"
#include "../src/kept_error.hpp"
#include "hook.hpp"
#include "new_threads.hpp"
#include "profile.hpp"
#include "zandor/instrument/controls.hpp"

namespace vantrace {

constinit Tracing tracing;

namespace {

/// The tracing uses it from now on.
void setSelection(Selection selection) {
    // Never destroyed: frames are entered until the very end of the process.
    static auto& kept = *std::make_unique<Selection>().release();
    kept = std::move(selection);
    tracing.selection = &kept;
}

void beginSession(bool withCCalls) {
    tracing = {.withCCalls = withCCalls,
               .isInChain = tracing.isInChain,
               .session = tracing.session + 1,
               .deepThreads = tracing.deepThreads,
               .next = tracing.next,
               .selection = tracing.selection,
               .import = instrument::controls.getHandle("import"),
               .tooDeep = instrument::controls.getHandle("(too deep to trace)"),
               .base = tracing.base};
}

/// Where the program's audit hooks refuse, an exception comes out.
void watchThreads() {
    if (tracing.withoutHook)
        watchNewThreads();
    if (tracing.withoutHook || tracing.withCCalls)
        watchAllCalls();
}

void endSession() {
    if (tracing.withoutHook)
        leaveNewThreads();
    else
        takeHookOut();
    if (tracing.withoutHook || tracing.withCCalls)
        tracing.hadOtherProfile = !unwatchCalls();
}

void beginOrLeaveNothing() {
    tracing.withoutHook = putHookIn();
    try {
        watchThreads();
    } catch (const PythonError&) {
        const KeptError refusal;
        endSession();
        throw;
    }
}

}  // namespace

void startTracing(Selection selection, bool withCCalls) {
    if (PyInterpreterState_Get() != PyInterpreterState_Main())
        raise(PyExc_RuntimeError, "functions are traced in the main interpreter only");
    if (tracing.users == 0) {
        setSelection(std::move(selection));
        beginSession(withCCalls);
        beginOrLeaveNothing();
    }
    ++tracing.users;
}

void stopTracing() {
    if (tracing.users == 0 || --tracing.users > 0)
        return;
    endSession();
}

}  // namespace vantrace
