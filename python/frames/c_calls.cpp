#include "c_calls.hpp"

#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "../src/errors.hpp"
#include "../src/handle_object.hpp"
#include "../src/text.hpp"
#include "call_event.hpp"
#include "function.hpp"
#include "tracing.hpp"
#include "zandor/instrument/controls.hpp"

namespace vantrace {

using instrument::EventId;
using instrument::Opaque;

namespace {

struct OpenCall {
    const Opaque* instrument;  ///< null where the call is no event
    EventId id;
};

/// The calls that a thread is in, innermost last.
struct OpenCalls {
    std::vector<OpenCall> calls;
};

using OpenCallsObject = HandleObject<OpenCalls>;

// Immortal, as the module is.
PyObject* openCallsType = nullptr;

/// Where a C function is defined: its type, or the name of its module.
PyObject* ownerOf(const PyCFunctionObject* function) noexcept {
    PyObject* self = function->m_self;
    if (!self || PyModule_Check(self))
        return function->m_module;
    return PyType_Check(self) ? self : reinterpret_cast<PyObject*>(Py_TYPE(self));
}

/// "module.name" or "type.name".
std::string nameOf(const PyCFunctionObject* function, PyObject* owner) {
    std::string name;
    if (owner && PyType_Check(owner)) {
        name = asType(owner)->tp_name;
    } else if (owner && PyUnicode_Check(owner)) {
        Ref text;
        name = utf8Of(owner, text);
    }
    if (!name.empty())
        name += '.';
    return name + function->m_ml->ml_name;
}

const Opaque* lookUp(const PyCFunctionObject* function, PyObject* owner) {
    const std::string name = nameOf(function, owner);
    return tracing.selection->isRecorded(name, false) ? instrument::controls.getHandle(name)
                                                      : nullptr;
}

/// What was looked up in a session.
struct KnownCFunction {
    const PyMethodDef* definition;
    const PyObject* owner;
    std::uint32_t session;
    const Opaque* instrument;
};

// Guarded by the interpreter's lock.
constinit std::array<KnownCFunction, 1024> knownCFunctions{};

/// Whether another definition may come to stand at the address of this one, or of its owner.
bool mayGo(PyObject* owner) noexcept {
    return !owner || (PyType_Check(owner) && PyType_HasFeature(asType(owner), Py_TPFLAGS_HEAPTYPE));
}

const Opaque* instrumentOf(const PyCFunctionObject* function) {
    PyObject* owner = ownerOf(function);
    if (mayGo(owner))
        return lookUp(function, owner);
    const auto address = reinterpret_cast<std::uintptr_t>(function->m_ml);
    KnownCFunction& known =
        knownCFunctions[(address / sizeof(PyMethodDef)) % knownCFunctions.size()];
    const bool isKnown =
        known.definition == function->m_ml && known.owner == owner &&
        known.session == tracing.session &&
        (!known.instrument ||
         std::string_view(known.instrument->name).ends_with(function->m_ml->ml_name));
    if (!isKnown)
        known = {function->m_ml, owner, tracing.session, lookUp(function, owner)};
    return known.instrument;
}

bool isOfRecordedFunction(const PyFrameObject* frame) noexcept {
    const Function* function = knownFunction(frame->f_frame->f_code);
    return function && function->kind == FunctionKind::recorded;
}

void enterCall(OpenCalls& open, const PyFrameObject* frame, PyObject* function) {
    OpenCall call{nullptr, {}};
    if (isOfRecordedFunction(frame) && PyCFunction_Check(function))
        call.instrument = instrumentOf(reinterpret_cast<PyCFunctionObject*>(function));
    open.calls.push_back(call);
    if (call.instrument)
        open.calls.back().id = startCall(call.instrument);
}

void leaveCall(OpenCalls& open) noexcept {
    if (open.calls.empty())
        return;  // entered before we watched
    const OpenCall call = open.calls.back();
    open.calls.pop_back();
    if (call.instrument)
        stopCall(call.instrument, call.id);
}

int profile(PyObject* self, PyFrameObject* frame, int what, PyObject* function) noexcept {
    OpenCalls& open = OpenCallsObject::of(self);
    if (what == PyTrace_C_CALL) {
        try {
            enterCall(open, frame, function);
        } catch (const std::exception&) {
            ++tracing.failedCalls;
        }
    } else if (what == PyTrace_C_RETURN || what == PyTrace_C_EXCEPTION) {
        leaveCall(open);
    }
    return 0;
}

PyType_Slot slots[] = {
    {Py_tp_dealloc, asSlot(OpenCallsObject::deallocate)},
    {0, nullptr},
};

PyType_Spec spec = {"vantrace._frames.OpenCalls", sizeof(OpenCallsObject), 0,
                    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_DISALLOW_INSTANTIATION, slots};

}  // namespace

void addCCalls(PyObject* module) {
    openCallsType = Ref::take(PyType_FromSpec(&spec)).release();
    check(PyModule_AddObjectRef(module, "OpenCalls", openCallsType));
}

void watchCCalls(PyThreadState* thread) {
    if (thread->c_profilefunc)
        return;
    const Ref open = OpenCallsObject::make(openCallsType, {});
    check(_PyEval_SetProfile(thread, profile, open.get()));
}

bool unwatchCCalls() {
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

}  // namespace vantrace
