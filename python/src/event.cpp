#include "event.hpp"

#include <structmember.h>

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <memory>
#include <span>
#include <vector>

#include "errors.hpp"
#include "event_function.hpp"
#include "event_object.hpp"
#include "instrument_cache.hpp"
#include "open_event.hpp"

namespace vantrace {

using instrument::ContextArg;
using instrument::ContextArgs;
using instrument::ContextValue;
using instrument::EventId;
using instrument::Opaque;

namespace {

/// Tells threads apart by the address of something that each has one of.
const void* currentThread() noexcept {
    return &isThreadNameKnown;
}

// Immortal, as the module is.
PyObject* eventType = nullptr;

PyObject* call(PyObject* self, PyObject* const* arguments, std::size_t countAndFlag,
               PyObject* names);

PyObject* create(PyObject*, PyObject* const* arguments, std::size_t countAndFlag, PyObject* names) {
    return guarded([&] {
        const Py_ssize_t count = PyVectorcall_NARGS(countAndFlag);
        if (count != 1) [[unlikely]]
            raise(PyExc_TypeError, "event takes 1 positional argument, the name, got %zd", count);
        return newEvent(asType(eventType), call, arguments[0], arguments + 1, names);
    });
}

/// event.__new__; calls of the type itself do not come here.
PyObject* construct(PyTypeObject* type, PyObject* arguments, PyObject* names) {
    return PyObject_Call(reinterpret_cast<PyObject*>(type), arguments, names);
}

int traverse(PyObject* self, visitproc visit, void* arg) {
    EventObject& event = eventOf(self);
    Py_VISIT(Py_TYPE(self));
    for (Py_ssize_t i = 0; i < event.contextSize(); ++i)
        Py_VISIT(event.values()[i]);
    return 0;
}

int clear(PyObject* self) {
    EventObject& event = eventOf(self);
    for (Py_ssize_t i = 0; i < event.contextSize(); ++i) {
        PyObject* value = event.values()[i];
        event.values()[i] = Py_NewRef(Py_None);
        Py_XDECREF(value);
    }
    return 0;
}

ContextArgs argsOf(EventObject& event, const Entered& entered) noexcept {
    return entered.context ? entered.context->args() : event.madeArgs();
}

void makeArgs(EventObject& event, Entered& entered) {
    if (event.state == ContextState::atoms) {
        const bool isMade = makeContext(event.values(), event.names, event.args());
        event.state = isMade ? ContextState::made : ContextState::mixed;
    }
    if (event.state == ContextState::mixed)
        entered.context = std::make_unique<CallContext>(event.values(), event.names);
}

Entered start(EventObject& event) {
    Entered entered{currentThread(), instrument::noListenerEventId, nullptr};
    if (!instrument::listeners.anyActive())
        return entered;
    if (event.names)
        makeArgs(event, entered);
    entered.id = startEvent(event.instrument, argsOf(event, entered));
    return entered;
}

/// With a context that is not made yet, or in several threads or nested.
[[gnu::noinline]] void enterGenerally(EventObject& event) {
    Entered entered = start(event);
    if (event.isEntered) {
        if (!event.outer)
            event.outer = std::make_unique<std::vector<Entered>>();
        event.outer->push_back(std::move(event.entered));
    }
    event.entered = std::move(entered);
    event.isEntered = true;
}

/// Has a context of a few numbers told with less: its names are looked up once. False for others.
bool makeNumbers(EventObject& event) {
    const std::span<ContextArg> args{event.args(), static_cast<std::size_t>(event.contextSize())};
    const auto isText = [](const ContextArg& arg) {
        return arg.value.kind() == ContextValue::Kind::text;
    };
    if (args.size() > instrument::mostNumbers || std::ranges::any_of(args, isText))
        return false;
    for (ContextArg& arg : args)
        arg.name = instrument::lastingName(arg.name);
    event.state = ContextState::numbers;
    return true;
}

/// With a context that stands ready.
[[gnu::noinline]] EventId startWithContext(EventObject& event) {
    if (event.state == ContextState::numbers || makeNumbers(event))
        return startNumberEvent(event.instrument, event.madeArgs());
    return startEvent(event.instrument, event.madeArgs());
}

void noteEntered(EventObject& event, EventId id) noexcept {
    event.entered.id = id;
    event.entered.thread = currentThread();
    event.isEntered = true;
}

/// With listeners, or not as usual.
[[gnu::noinline]] PyObject* enterTold(PyObject* self) {
    return guarded([&] {
        EventObject& event = eventOf(self);
        if (!event.isUsual() || event.isEntered) [[unlikely]]
            enterGenerally(event);
        else if (event.names)
            noteEntered(event, startWithContext(event));
        else
            noteEntered(event, startEvent(event.instrument));
        return Py_NewRef(self);
    });
}

// While nobody listens the next two are a few steps without a call.

PyObject* enter(PyObject* self) {
    EventObject& event = eventOf(self);
    if (instrument::listeners.anyActive() || !event.isUsual() || event.isEntered)
        return enterTold(self);
    noteEntered(event, instrument::noListenerEventId);
    return Py_NewRef(self);
}

/// Takes out what the calling thread entered last, or else what was entered last.
Entered takeEntered(EventObject& event) {
    if (!event.outer || event.outer->empty()) [[likely]] {
        event.isEntered = false;
        return std::move(event.entered);
    }
    std::vector<Entered>& outer = *event.outer;
    const void* thread = currentThread();
    if (event.entered.thread != thread) {
        for (auto other = outer.rbegin(); other != outer.rend(); ++other) {
            if (other->thread != thread)
                continue;
            Entered found = std::move(*other);
            outer.erase(std::next(other).base());
            return found;
        }
    }
    Entered found = std::move(event.entered);
    event.entered = std::move(outer.back());
    outer.pop_back();
    return found;
}

void stop(EventObject& event) {
    if (!event.isEntered) [[unlikely]]
        raise(PyExc_RuntimeError, "the event was not entered");
    if (!event.isUsual()) [[unlikely]] {
        const Entered entered = takeEntered(event);
        stopEvent(event.instrument, argsOf(event, entered), entered.id);
        return;
    }
    event.isEntered = false;
    stopEvent(event.instrument, event.madeArgs(), event.entered.id);
}

[[gnu::noinline]] PyObject* leaveTold(PyObject* self, bool withException) {
    return guarded([&] {
        try {
            stop(eventOf(self));
        } catch (const std::exception&) {
            // The exception that ends the block is the one to hear about.
            if (!withException)
                throw;
        }
        return Py_NewRef(Py_None);
    });
}

PyObject* leave(PyObject* self, bool withException) {
    EventObject& event = eventOf(self);
    if (event.entered.id.sourceId != 0 || !event.isUsual() || !event.isEntered)
        return leaveTold(self, withException);
    event.isEntered = false;
    return Py_NewRef(Py_None);
}

[[gnu::noinline]] PyObject* decorateOnly(PyObject* self, PyObject* const* arguments,
                                         Py_ssize_t count, PyObject* names) {
    if (count == 1 && !names)
        return guarded([&] { return decorate(self, arguments[0]).release(); });
    PyErr_SetString(PyExc_TypeError, "an event decorates one function");
    return nullptr;
}

PyObject* call(PyObject* self, PyObject* const* arguments, std::size_t countAndFlag,
               PyObject* names) {
    const Py_ssize_t count = PyVectorcall_NARGS(countAndFlag);
    if (!names) [[likely]] {
        if (count == 0)
            return enter(self);
        if (count == 3)
            return leave(self, arguments[0] != Py_None);
    }
    return decorateOnly(self, arguments, count, names);
}

/// What __enter__ and __exit__ are: the event itself.
PyObject* phase(PyObject* self, PyObject* event, PyObject*) {
    return Py_NewRef(event ? event : self);
}

PyObject* repr(PyObject* self) {
    return PyUnicode_FromFormat("<event %R>", eventOf(self).name);
}

PyObject* name(PyObject* self, void*) {
    return Py_NewRef(eventOf(self).name);
}

PyObject* context(PyObject* self, void*) {
    return guarded([&] {
        EventObject& event = eventOf(self);
        Ref values = Ref::take(PyDict_New());
        for (Py_ssize_t i = 0; i < event.contextSize(); ++i)
            check(
                PyDict_SetItem(values.get(), PyTuple_GET_ITEM(event.names, i), event.values()[i]));
        return values.release();
    });
}

PyGetSetDef properties[] = {
    {"name", name, nullptr, "The event's name.", nullptr},
    {"context", context, nullptr, "Its context as a dict.", nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyMemberDef members[] = {
    {"__vectorcalloffset__", T_PYSSIZET, offsetof(CallableHead, call), READONLY, nullptr},
    {nullptr, 0, 0, 0, nullptr},
};

constexpr char doc[] =
    "event(name, /, **context)\n--\n\n"
    "A stretch of work, for the with statement or as a decorator.\n\n"
    "Context values are str, int, float or bool, taken as they are; others by str().";

PyType_Slot slots[] = {
    {Py_tp_doc, const_cast<char*>(doc)},
    {Py_tp_new, asSlot(construct)},
    {Py_tp_dealloc, asSlot(deallocateEvent)},
    {Py_tp_traverse, asSlot(traverse)},
    {Py_tp_clear, asSlot(clear)},
    {Py_tp_repr, asSlot(repr)},
    {Py_tp_call, asSlot(PyVectorcall_Call)},
    {Py_tp_getset, properties},
    {Py_tp_members, members},
    {0, nullptr},
};

PyType_Spec spec = {"vantrace.event", sizeof(EventObject), eventEntrySize,
                    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_HAVE_VECTORCALL, slots};

PyType_Slot phaseSlots[] = {
    {Py_tp_descr_get, asSlot(phase)},
    {0, nullptr},
};

PyType_Spec phaseSpec = {"vantrace._core.EventPhase", sizeof(PyObject), 0,
                         Py_TPFLAGS_DEFAULT | Py_TPFLAGS_DISALLOW_INSTANTIATION, phaseSlots};

}  // namespace

void addEvents(PyObject* module) {
    eventType = Ref::take(PyType_FromSpec(&spec)).release();
    asType(eventType)->tp_vectorcall = create;
    const Ref phaseType = Ref::take(PyType_FromSpec(&phaseSpec));
    const Ref itself = Ref::take(PyType_GenericAlloc(asType(phaseType.get()), 0));
    check(PyObject_SetAttrString(eventType, "__enter__", itself.get()));
    check(PyObject_SetAttrString(eventType, "__exit__", itself.get()));
    // The interpreter specialises calls of types that do not change and have a __new__ of their
    // own.
    asType(eventType)->tp_flags |= Py_TPFLAGS_IMMUTABLETYPE;
    PyType_Modified(asType(eventType));
    check(PyModule_AddObjectRef(module, "event", eventType));
    addEventFunction(module);
}

bool isEvent(PyObject* object) noexcept {
    return PyObject_TypeCheck(object, asType(eventType));
}

EventParts partsOf(PyObject* event) noexcept {
    EventObject& self = eventOf(event);
    return {self.instrument, self.values(), self.names};
}

namespace {

[[gnu::noinline]] void emitInstant(const Opaque* instrument, PyObject* const* values,
                                   PyObject* names) {
    if (!instrument::listeners.anyActive())
        return;
    const CallContext given(values, names);
    if (!isOn(instrument, given.args()))
        return;
    nameThread();
    instrument::tellInstant(instrument, given.args());
}

}  // namespace

PyObject* emitInstant(PyObject*, PyObject* const* arguments, Py_ssize_t count, PyObject* names) {
    return guarded([&] {
        if (count != 1) [[unlikely]]
            raise(PyExc_TypeError, "instant takes 1 positional argument, the name, got %zd", count);
        const Opaque* instrument = instrumentOf(arguments[0]);
        if (names) {
            emitInstant(instrument, arguments + 1, names);
        } else if (instrument::listeners.anyActive()) {
            nameThread();
            instrument::instantPlain(instrument);
        }
        return Py_NewRef(Py_None);
    });
}

}  // namespace vantrace
