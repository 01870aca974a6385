#include "profile.hpp"

#include <exception>
#include <utility>
#include <vector>

#include "../src/errors.hpp"
#include "../src/handle_object.hpp"
#include "../src/kept_error.hpp"
#include "../src/text.hpp"
#include "c_function.hpp"
#include "call_event.hpp"
#include "function_map.hpp"
#include "hook.hpp"
#include "task_name.hpp"
#include "tracing.hpp"

namespace vantrace {

using instrument::ContextArg;
using instrument::ContextArgs;
using instrument::EventId;
using instrument::Opaque;

namespace {

struct OpenCall {
    const void* callee;        ///< the frame, or the C function
    const Opaque* instrument;  ///< null where the call is no event
    EventId id;
    Ref task;           ///< the name of the asyncio task that the call is part of, if any
    bool wasImporting;  ///< before
};

/// What a thread is in, innermost last.
struct ThreadCalls {
    std::vector<OpenCall> open;
    bool hasRunningFrames = false;  ///< those that ran when the thread was first seen were adopted
    bool isImporting = false;       ///< an import is the latest event that it entered
};

using ThreadCallsObject = HandleObject<ThreadCalls>;

// Immortal, as the module is.
PyObject* threadCallsType = nullptr;

Ref codeOf(PyFrameObject* frame) noexcept {
    return Ref::steal(reinterpret_cast<PyObject*>(PyFrame_GetCode(frame)));
}

Ref callerOf(PyFrameObject* frame) noexcept {
    return Ref::steal(reinterpret_cast<PyObject*>(PyFrame_GetBack(frame)));
}

PyFrameObject* asFrame(const Ref& frame) noexcept {
    return reinterpret_cast<PyFrameObject*>(frame.get());
}

/// The function of a frame's code as the present session sees it.
const Function& functionOf(PyFrameObject* frame) {
    const Ref code = codeOf(frame);
    auto* const pointer = reinterpret_cast<PyCodeObject*>(code.get());
    FunctionMap& map = functionMap();
    Function* function = map.find(pointer);
    if (function && function->session == tracing.session) [[likely]]
        return *function;
    if (!function)
        function = &map.add(pointer);
    const Ref globals = Ref::take(PyFrame_GetGlobals(frame));
    const Ref caller = callerOf(frame);
    const Ref callersCode = caller ? codeOf(asFrame(caller)) : Ref();
    decide(*function, {pointer, globals.get()},
           map.find(reinterpret_cast<PyCodeObject*>(callersCode.get())));
    return *function;
}

ContextArg taskContext(const Ref& task, Ref& owner) {
    return {"task", utf8Of(task.get(), owner)};
}

void startOpen(OpenCall& call) {
    if (!call.task) {
        call.id = startCall(call.instrument);
        return;
    }
    Ref owner;
    const ContextArg context = taskContext(call.task, owner);
    call.id = startCall(call.instrument, ContextArgs(&context, 1));
}

void stopOpen(const OpenCall& call) {
    if (!call.task)
        return stopCall(call.instrument, call.id);
    Ref owner;
    const ContextArg context = taskContext(call.task, owner);
    stopCall(call.instrument, call.id, ContextArgs(&context, 1));
}

/// Of a call of an import: the one around others is the event.
const Opaque* enterImport(ThreadCalls& calls) noexcept {
    if (!std::exchange(calls.isImporting, true))
        return tracing.import;
    ++tracing.collapsedCalls;
    return nullptr;
}

const Opaque* eventOf(const Function& function, ThreadCalls& calls) noexcept {
    switch (function.kind) {
        case FunctionKind::recorded:
            calls.isImporting = false;
            return function.resume;
        case FunctionKind::import:
            return enterImport(calls);
        case FunctionKind::collapsed:
            ++tracing.collapsedCalls;
            return nullptr;
        case FunctionKind::own:
            return nullptr;
    }
    return nullptr;
}

bool isRecorded(PyFrameObject* frame) {
    const Ref code = codeOf(frame);
    auto* const pointer = reinterpret_cast<PyCodeObject*>(code.get());
    const Function* function =
        tracing.withoutHook ? functionMap().find(pointer) : functionOfHook(pointer);
    return function && function->kind == FunctionKind::recorded;
}

OpenCall& push(ThreadCalls& calls, const void* callee) {
    calls.open.push_back({callee, nullptr, {}, Ref(), calls.isImporting});
    return calls.open.back();
}

void enterFunction(ThreadCalls& calls, PyFrameObject* frame) {
    const Function& function = functionOf(frame);
    OpenCall& call = push(calls, frame);
    call.instrument = eventOf(function, calls);
    if (function.isCoroutine && function.kind == FunctionKind::recorded)
        call.task = currentTaskName();
    if (call.instrument)
        startOpen(call);
}

void enterCFunction(ThreadCalls& calls, PyFrameObject* frame, PyObject* callee) {
    OpenCall& call = push(calls, callee);
    if (isRecorded(frame) && PyCFunction_Check(callee))
        call.instrument = instrumentOf(reinterpret_cast<PyCFunctionObject*>(callee));
    if (call.instrument)
        startOpen(call);
}

/// One that was entered before we watched is not there.
void leave(ThreadCalls& calls, const void* callee) {
    if (calls.open.empty() || calls.open.back().callee != callee)
        return;
    const OpenCall call = std::move(calls.open.back());
    calls.open.pop_back();
    calls.isImporting = call.wasImporting;
    if (call.instrument)
        stopOpen(call);
}

bool isBase(PyFrameObject* frame) noexcept {
    return codeOf(frame).get() == reinterpret_cast<const PyObject*>(tracing.base);
}

/// Starts events for the frames that the thread runs already, outermost first. Nothing stops them,
/// whatever hook sees the calls.
void adoptRunningFrames(ThreadCalls& calls, PyFrameObject* innermost) {
    calls.hasRunningFrames = true;
    std::vector<Ref> frames;
    for (Ref frame = Ref::share(reinterpret_cast<PyObject*>(innermost)); frame;) {
        if (isBase(asFrame(frame)))
            break;
        Ref caller = callerOf(asFrame(frame));
        frames.push_back(std::move(frame));
        frame = std::move(caller);
    }
    for (; !frames.empty(); frames.pop_back()) {
        const Function& function = functionOf(asFrame(frames.back()));
        if (function.kind == FunctionKind::recorded)
            startCall(function.resume);
    }
}

void followFunction(ThreadCalls& calls, PyFrameObject* frame, int what) {
    if (!calls.hasRunningFrames) {
        const Ref caller = callerOf(frame);
        adoptRunningFrames(calls, what == PyTrace_CALL ? asFrame(caller) : frame);
    }
    if (what == PyTrace_CALL)
        enterFunction(calls, frame);
    else if (what == PyTrace_RETURN)
        leave(calls, frame);
}

void followCFunction(ThreadCalls& calls, PyFrameObject* frame, int what, PyObject* callee) {
    if (what == PyTrace_C_CALL)
        enterCFunction(calls, frame, callee);
    else if (what == PyTrace_C_RETURN || what == PyTrace_C_EXCEPTION)
        leave(calls, callee);
}

int profile(PyObject* self, PyFrameObject* frame, int what, PyObject* argument) noexcept {
    if (!tracing.withoutHook && (what == PyTrace_CALL || what == PyTrace_RETURN))
        return 0;  // the hook's
    const KeptError error;
    try {
        if (tracing.withoutHook)
            followFunction(ThreadCallsObject::of(self), frame, what);
        if (tracing.withCCalls)
            followCFunction(ThreadCallsObject::of(self), frame, what, argument);
    } catch (const std::exception&) {
        ++tracing.failedCalls;
    } catch (const PythonError&) {
        ++tracing.failedCalls;
    }
    return 0;
}

PyType_Slot slots[] = {
    {Py_tp_dealloc, asSlot(ThreadCallsObject::deallocate)},
    {0, nullptr},
};

PyType_Spec spec = {"vantrace._frames.ThreadCalls", sizeof(ThreadCallsObject), 0,
                    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_DISALLOW_INSTANTIATION, slots};

Ref watch(PyThreadState* thread) {
    Ref calls = ThreadCallsObject::make(threadCallsType, {});
    check(_PyEval_SetProfile(thread, profile, calls.get()));
    return calls;
}

}  // namespace

void addProfile(PyObject* module) {
    threadCallsType = Ref::take(PyType_FromSpec(&spec)).release();
    check(PyModule_AddObjectRef(module, "ThreadCalls", threadCallsType));
}

void watchCalls(PyThreadState* thread) {
    if (!thread->c_profilefunc)
        watch(thread);
}

void watchAllCalls() {
    PyThreadState* const caller = PyThreadState_Get();
    for (PyThreadState* thread = PyInterpreterState_ThreadHead(caller->interp); thread;
         thread = PyThreadState_Next(thread))
        watchCalls(thread);
    if (caller->c_profilefunc != profile)
        return;
    const Ref frame = Ref::steal(reinterpret_cast<PyObject*>(PyThreadState_GetFrame(caller)));
    adoptRunningFrames(ThreadCallsObject::of(caller->c_profileobj), asFrame(frame));
}

bool unwatchCalls() {
    bool wasOurs = true;
    for (PyThreadState* thread = PyInterpreterState_ThreadHead(PyInterpreterState_Main()); thread;
         thread = PyThreadState_Next(thread)) {
        if (thread->c_profilefunc == profile)
            check(_PyEval_SetProfile(thread, nullptr, nullptr));
        else
            wasOurs = false;
    }
    return wasOurs;
}

void watchCallsFrom(PyThreadState* thread, PyFrameObject* entered) {
    if (!tracing.withoutHook || tracing.users == 0) {
        check(_PyEval_SetProfile(thread, nullptr, nullptr));
        return;
    }
    const Ref calls = watch(thread);
    if (entered)
        profile(calls.get(), entered, PyTrace_CALL, Py_None);
}

}  // namespace vantrace
