#include "hook.hpp"

#include <cxxabi.h>
#include <pthread.h>

#include <new>
#include <utility>
#include <vector>

#include "../src/errors.hpp"
#include "../src/text.hpp"
#include "call_event.hpp"
#include "function_slot.hpp"
#include "profile.hpp"
#include "stack.hpp"
#include "subscript.hpp"
#include "task_name.hpp"
#include "tracing.hpp"
#include "zandor/instrument/clock.hpp"

namespace vantrace {

using instrument::ContextArgs;
using instrument::EventId;
using instrument::Opaque;

namespace {

PyObject* evaluateFrame(PyThreadState* thread, Frame* frame, int throws);

/// `tracing.next`, for calls that are events.
constinit instrument::PlainCallee evaluator{nullptr, park};

/// What the interpreter would do without the hook.
PyObject* goOn(PyThreadState* thread, Frame* frame, int throws) {
    return intoPython([&] { return tracing.next(thread, frame, throws); });
}

[[gnu::always_inline]] inline bool isTooDeep(const TracedThread& thread) noexcept {
    return static_cast<const char*>(__builtin_frame_address(0)) < thread.limit;
}

bool isResumed(const Frame* frame) noexcept {
    return frame->owner == FRAME_OWNED_BY_GENERATOR;
}

/// The function of a frame's code as the present session sees it.
[[gnu::always_inline]] inline Function* functionOf(const Frame* frame,
                                                   const Frame* caller) noexcept {
    Function* function = knownFunction(frame->f_code);
    if (function && function->session == tracing.session) [[likely]]
        return function;
    return learnFunction(frame, caller);
}

/// No function of ours lies between the event and the evaluator: each takes stack.
[[gnu::always_inline]] inline PyObject* evaluateEvent(PyThreadState* thread, Frame* frame,
                                                      int throws, const Opaque* instrument) {
    return static_cast<PyObject*>(
        instrument::callPlain(thread, frame, throws, evaluator, instrument));
}

/// A step of a coroutine.
PyObject* evaluateStep(PyThreadState* thread, Frame* frame, int throws, const Opaque* instrument) {
    const Ref task = currentTaskName();
    Ref owner;
    instrument::ContextArg context;
    if (task)
        context = {"task", utf8Of(task.get(), owner)};
    const ContextArgs args(&context, task ? 1 : 0);
    const EventId id = startCall(instrument, args);
    PyObject* result = goOn(thread, frame, throws);
    stopCall(instrument, id, args);
    return result;
}

PyObject* evaluateImport(PyThreadState* thread, Frame* frame, int throws) {
    TracedThread& traced = tracedThread;
    if (std::exchange(traced.isImporting, true)) {
        ++tracing.collapsedCalls;  // part of the import around it
        return goOn(thread, frame, throws);
    }
    traced.usual = 0;
    nameThread();
    PyObject* result = evaluateEvent(thread, frame, throws, tracing.import);
    traced.isImporting = false;
    return result;
}

/// A function that an import calls: imports below it are its own.
PyObject* evaluateInImport(PyThreadState* thread, Frame* frame, int throws,
                           const Opaque* instrument) {
    TracedThread& traced = tracedThread;
    traced.isImporting = false;
    PyObject* result = evaluateEvent(thread, frame, throws, instrument);
    traced.isImporting = true;
    traced.usual = 0;
    return result;
}

/// A jump, with nothing of ours left on the stack, where possible.
PyObject* evaluateOther(PyThreadState* thread, Frame* frame, int throws, const Function* function) {
    if (function && function->kind == FunctionKind::import)
        return evaluateImport(thread, frame, throws);
    if (function && function->kind == FunctionKind::collapsed)
        ++tracing.collapsedCalls;
    return tracing.next(thread, frame, throws);
}

const Opaque* instrumentOf(const Function& function, const Frame* frame) noexcept {
    return isResumed(frame) ? function.resume : function.call;
}

PyObject* evaluateTraced(PyThreadState* thread, Frame* frame, int throws) {
    const Function* function = functionOf(frame, thread->cframe->current_frame);
    if (!function || function->kind != FunctionKind::recorded)
        return evaluateOther(thread, frame, throws, function);
    nameThread();
    if (function->mayBeSubscript)
        keepGeneral(thread->cframe->current_frame);
    const Opaque* instrument = instrumentOf(*function, frame);
    if (function->isCoroutine && isResumed(frame)) [[unlikely]]
        return evaluateStep(thread, frame, throws, instrument);
    if (tracedThread.isImporting) [[unlikely]]
        return evaluateInImport(thread, frame, throws, instrument);
    tracedThread.usual = tracing.session;
    return evaluateEvent(thread, frame, throws, instrument);
}

_PyFrameEvalFunction latestHook() noexcept {
    return _PyInterpreterState_GetEvalFrameFunc(PyInterpreterState_Main());
}

void setHook(_PyFrameEvalFunction hook) noexcept {
    _PyInterpreterState_SetEvalFrameFunc(PyInterpreterState_Main(), hook);
}

/// Puts the hook back that was taken out for a deep thread.
void putBack() noexcept {
    if (tracing.isInChain && latestHook() == tracing.next)
        setHook(evaluateFrame);
}

/// The child of a fork has one thread: those for which the hook was taken out may be gone.
void recountDeepThreads() noexcept {
    tracing.deepThreads = tracedThread.isDeep ? 1 : 0;
    if (tracing.deepThreads == 0)
        putBack();
}

/// The frame, and all that it calls, without the hook. Behind another tool's hook there is no way
/// to take ours out: that tool's calls take C stack whatever we do.
PyObject* evaluateDeep(PyThreadState* thread, Frame* frame, int throws) {
    if (latestHook() != evaluateFrame)
        return goOn(thread, frame, throws);
    tracedThread.isDeep = true;
    ++tracing.deepThreads;
    ++tracing.deepStretches;
    const std::int64_t begin = instrument::clock::now();
    const EventId id = startCall(tracing.tooDeep);
    setHook(tracing.next);
    PyObject* result = goOn(thread, frame, throws);
    tracedThread.isDeep = false;
    --tracing.deepThreads;
    putBack();
    stopCall(tracing.tooDeep, id);
    tracing.deepTime += instrument::clock::now() - begin;
    return result;
}

/// Starts events for the frames that the thread runs already, outermost first. Nothing stops them:
/// these frames end past the hook.
void adoptRunningFrames(const Frame* innermost) {
    std::vector<const Frame*> frames;
    for (const Frame* frame = innermost; frame && frame->f_code != tracing.base;
         frame = frame->previous)
        frames.push_back(frame);
    for (; !frames.empty(); frames.pop_back()) {
        const Function* function = functionOf(frames.back(), frames.back()->previous);
        if (function && function->kind == FunctionKind::recorded)
            startCall(instrumentOf(*function, frames.back()));
    }
}

/// What is thrown in a thread is kept in memory that is taken at the first throw, and a process
/// that has none left by then is ended at once. So it is taken early.
void prepareToThrow() noexcept {
    [[maybe_unused]] void* volatile taken = abi::__cxa_get_globals();
}

/// Looks at the calling thread for the first time in the session.
void lookAtThread(PyThreadState* thread) noexcept {
    if (!tracedThread.limit) {
        tracedThread.limit = stackLimit();
        prepareToThrow();
    }
    tracedThread.session = tracing.session;
    tracedThread.usual = 0;
    tracedThread.isImporting = false;
    try {
        adoptRunningFrames(thread->cframe->current_frame);
    } catch (const std::bad_alloc&) {
        ++tracing.failedCalls;
    }
    if (tracing.withCCalls && guardedStatus([&] { watchCalls(thread); }) < 0)
        PyErr_Clear();  // the program's audit hook refused, which it knows
}

[[gnu::noinline]] PyObject* evaluateUnusual(PyThreadState* thread, Frame* frame, int throws) {
    if (!tracing.isHooked())
        return tracing.next(thread, frame, throws);
    if (tracedThread.session != tracing.session)
        lookAtThread(thread);
    if (isTooDeep(tracedThread))
        return evaluateDeep(thread, frame, throws);
    return evaluateTraced(thread, frame, throws);
}

/// Of a function that is not recorded. A jump, with nothing of ours left on the stack.
[[gnu::noinline]] PyObject* evaluateCollapsed(PyThreadState* thread, Frame* frame, int throws) {
    if (!tracing.isHooked() || tracedThread.session != tracing.session || isTooDeep(tracedThread))
        return evaluateUnusual(thread, frame, throws);
    ++tracing.collapsedCalls;
    return tracing.next(thread, frame, throws);
}

/// Whether the thread, and a call of the function, are as nearly all are.
[[gnu::always_inline]] inline bool isUsual(const Function& function, const TracedThread& thread) {
    return function.usual == tracing.hooked && thread.usual == tracing.hooked && !isTooDeep(thread);
}

/// Jumps only: what is here takes no stack, and has no registers to keep.
PyObject* evaluateFrame(PyThreadState* thread, Frame* frame, int throws) {
    const Function* function = knownFunction(frame->f_code);
    if (!function) [[unlikely]]
        return evaluateUnusual(thread, frame, throws);
    if (!isUsual(*function, tracedThread)) [[unlikely]]
        return function->kind == FunctionKind::collapsed && function->session == tracing.session
                   ? evaluateCollapsed(thread, frame, throws)
                   : evaluateUnusual(thread, frame, throws);
    if (function->mayBeSubscript && isAtSubscript(thread->cframe->current_frame)) [[unlikely]]
        return evaluateUnusual(thread, frame, throws);
    return evaluateEvent(thread, frame, throws, instrumentOf(*function, frame));
}

/// Whether a frame that runs now reaches our hook.
bool isReached() {
    // New each time, and thus a function that the hook does not know.
    const Ref code = Ref::take(Py_CompileString("None", "<frame>", Py_eval_input));
    const Ref names = Ref::take(PyDict_New());
    tracing.awaited = reinterpret_cast<PyCodeObject*>(code.get());
    // Not to be looked at: whether the session is the hook's is what we ask.
    const std::uint32_t session = std::exchange(tracedThread.session, tracing.session);
    const Ref result = Ref::steal(PyEval_EvalCode(code.get(), names.get(), names.get()));
    tracedThread.session = session;
    check(result ? 0 : -1);
    return !std::exchange(tracing.awaited, nullptr);
}

/// Another tool may have set its hook over ours since, and will call it: ours twice in one chain
/// would never come to the end of it. False where another tool does not let ours be.
bool joinChain() {
    if (latestHook() == evaluateFrame || (tracing.isInChain && isReached()))
        return true;
    tracing.next = latestHook();
    evaluator.function = reinterpret_cast<decltype(evaluator.function)>(tracing.next);
    setHook(evaluateFrame);
    tracing.isInChain = isReached() && latestHook() == evaluateFrame;
    return tracing.isInChain;
}

/// Instructions that run already, in any thread, may be specialised.
void observeRunningFrames() {
    for (PyThreadState* thread = PyInterpreterState_ThreadHead(PyInterpreterState_Main()); thread;
         thread = PyThreadState_Next(thread)) {
        for (const Frame* frame = thread->cframe->current_frame; frame; frame = frame->previous)
            observeSubscripts(frame->f_code);
    }
}

void watchForks() {
    static const int registered = pthread_atfork(nullptr, nullptr, recountDeepThreads);
    static_cast<void>(registered);
}

}  // namespace

const char* putHookIn() {
    if (!requestFunctionSlot())
        return "other tools took all extra slots of code objects";
    watchForks();
    tracing.hooked = tracing.session;
    if (!joinChain()) {
        tracing.hooked = Tracing::noSession;
        return "another tool lets no other frame-evaluation hook be";
    }
    observeRunningFrames();
    lookAtThread(PyThreadState_Get());
    return nullptr;
}

void takeHookOut() {
    if (latestHook() == evaluateFrame) {
        setHook(tracing.next);
        tracing.isInChain = false;
    } else if (tracing.deepThreads > 0 && latestHook() == tracing.next) {
        tracing.isInChain = false;
    } else if (!isReached()) {
        tracing.wasTakenOut = true;
        tracing.isInChain = false;
    }
    tracing.hooked = Tracing::noSession;
}

const Function* functionOfHook(PyCodeObject* code) noexcept {
    return knownFunction(code);
}

}  // namespace vantrace
