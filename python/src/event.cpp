#include "event.hpp"

#include <structmember.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <new>
#include <vector>

#include "errors.hpp"
#include "event_function.hpp"
#include "instrument_cache.hpp"
#include "open_event.hpp"

namespace vantrace {

using instrument::ContextArg;
using instrument::ContextArgs;
using instrument::EventId;
using instrument::Opaque;

namespace {

/// Tells threads apart by the address of something that each has one of.
const void* currentThread() noexcept {
    return &isThreadNameKnown;
}

/// An event that was entered and not left yet.
struct Entered {
    const void* thread = nullptr;
    EventId id;
    std::unique_ptr<CallContext> context;  ///< where it is mixed and the start was delivered
};

struct CallableHead {
    PyObject_VAR_HEAD vectorcallfunc call;
};

/// What is known about the context of an event object.
enum class ContextState : std::uint8_t {
    atoms,  ///< immutable values that were not looked at yet, or none
    made,   ///< its arguments stand ready
    mixed,  ///< other values: arguments are made at each entering
};

/// The context's arguments and its values follow.
struct EventObject {
    CallableHead head;
    const Opaque* instrument;
    PyObject* name;
    PyObject* names;  ///< of the context: a tuple, or null
    bool isEntered;
    ContextState state;
    Entered entered;
    std::unique_ptr<std::vector<Entered>> outer;  ///< entered before `entered`, latest last

    ContextArg* args() noexcept { return reinterpret_cast<ContextArg*>(this + 1); }
    PyObject** values() noexcept { return reinterpret_cast<PyObject**>(args() + Py_SIZE(&head)); }
};
constexpr std::size_t entrySize = sizeof(ContextArg) + sizeof(PyObject*);

// Immortal, as the module is.
PyObject* eventType = nullptr;

EventObject& eventOf(PyObject* self) noexcept {
    return *reinterpret_cast<EventObject*>(self);
}

Py_ssize_t contextSize(EventObject& event) noexcept {
    return Py_SIZE(&event.head);
}

// Objects that ended wait here for their next use, by the size of their context. Guarded by the
// interpreter's lock.
struct FreeEvents {
    static constexpr std::size_t most = 16;
    std::size_t count;
    std::array<EventObject*, most> objects;
};
constinit std::array<FreeEvents, 5> freeEvents{};

EventObject* allocate(Py_ssize_t size) {
    if (static_cast<std::size_t>(size) < freeEvents.size()) {
        FreeEvents& free = freeEvents[static_cast<std::size_t>(size)];
        if (free.count != 0) {
            EventObject* event = free.objects[--free.count];
            PyObject_InitVar(reinterpret_cast<PyVarObject*>(event), asType(eventType), size);
            return event;
        }
    }
    EventObject* event = PyObject_GC_NewVar(EventObject, asType(eventType), size);
    if (!event)
        throw PythonError();
    new (&event->entered) Entered();
    new (&event->outer) std::unique_ptr<std::vector<Entered>>();
    event->isEntered = false;
    return event;
}

void release(EventObject* event) noexcept {
    const auto size = static_cast<std::size_t>(contextSize(*event));
    if (size < freeEvents.size() && freeEvents[size].count < FreeEvents::most) {
        FreeEvents& free = freeEvents[size];
        free.objects[free.count++] = event;
        return;
    }
    event->entered.~Entered();
    event->outer.~unique_ptr();
    PyObject_GC_Del(event);
}

PyObject* call(PyObject* self, PyObject* const* arguments, std::size_t countAndFlag,
               PyObject* names);

PyObject* newEvent(PyObject* name, const Opaque* instrument, PyObject* const* values,
                   PyObject* names) {
    const Py_ssize_t size = names ? PyTuple_GET_SIZE(names) : 0;
    EventObject* event = allocate(size);
    event->head.call = call;
    event->instrument = instrument;
    event->name = Py_NewRef(name);
    event->names = Py_XNewRef(names);
    for (Py_ssize_t i = 0; i < size; ++i)
        event->values()[i] = Py_NewRef(values[i]);
    auto* object = reinterpret_cast<PyObject*>(event);
    event->state = ContextState::atoms;
    if (size != 0 && !areAtoms(values, static_cast<std::size_t>(size))) {
        event->state = ContextState::mixed;
        PyObject_GC_Track(object);
    }
    return object;
}

PyObject* create(PyObject*, PyObject* const* arguments, std::size_t countAndFlag, PyObject* names) {
    return guarded([&] {
        const Py_ssize_t count = PyVectorcall_NARGS(countAndFlag);
        if (count != 1) [[unlikely]]
            raise(PyExc_TypeError, "event takes 1 positional argument, the name, got %zd", count);
        return newEvent(arguments[0], instrumentOf(arguments[0]), arguments + 1, names);
    });
}

int traverse(PyObject* self, visitproc visit, void* arg) {
    EventObject& event = eventOf(self);
    Py_VISIT(Py_TYPE(self));
    for (Py_ssize_t i = 0; i < contextSize(event); ++i)
        Py_VISIT(event.values()[i]);
    return 0;
}

int clear(PyObject* self) {
    EventObject& event = eventOf(self);
    for (Py_ssize_t i = 0; i < contextSize(event); ++i) {
        PyObject* value = event.values()[i];
        event.values()[i] = Py_NewRef(Py_None);
        Py_XDECREF(value);
    }
    return 0;
}

void deallocate(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    EventObject& event = eventOf(self);
    PyObject_GC_UnTrack(self);
    if (event.isEntered) [[unlikely]] {
        event.entered = Entered();
        event.outer.reset();
        event.isEntered = false;
    }
    for (Py_ssize_t i = 0; i < contextSize(event); ++i)
        Py_DECREF(event.values()[i]);
    Py_XDECREF(event.names);
    Py_DECREF(event.name);
    release(&event);
    Py_DECREF(type);
}

ContextArgs argsOf(EventObject& event, const Entered& entered) noexcept {
    if (entered.context)
        return entered.context->args();
    if (event.state != ContextState::made)
        return {};
    return {event.args(), static_cast<std::size_t>(contextSize(event))};
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

/// With a context, or in several threads or nested.
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

PyObject* enter(PyObject* self) {
    return guarded([&] {
        EventObject& event = eventOf(self);
        if (event.names || event.isEntered) {
            enterGenerally(event);
            return Py_NewRef(self);
        }
        event.entered.id = instrument::listeners.anyActive() ? startEvent(event.instrument)
                                                             : instrument::noListenerEventId;
        event.entered.thread = currentThread();
        event.isEntered = true;
        return Py_NewRef(self);
    });
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
    if (event.names || event.outer) {
        const Entered entered = takeEntered(event);
        stopEvent(event.instrument, argsOf(event, entered), entered.id);
        return;
    }
    event.isEntered = false;
    stopEvent(event.instrument, {}, event.entered.id);
}

PyObject* leave(PyObject* self, bool withException) {
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

PyObject* call(PyObject* self, PyObject* const* arguments, std::size_t countAndFlag,
               PyObject* names) {
    const Py_ssize_t count = PyVectorcall_NARGS(countAndFlag);
    if (!names) [[likely]] {
        if (count == 0)
            return enter(self);
        if (count == 3)
            return leave(self, arguments[0] != Py_None);
        if (count == 1)
            return guarded([&] { return decorate(self, arguments[0]).release(); });
    }
    PyErr_SetString(PyExc_TypeError, "an event decorates one function");
    return nullptr;
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
        for (Py_ssize_t i = 0; i < contextSize(event); ++i)
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
    {Py_tp_dealloc, asSlot(deallocate)},
    {Py_tp_traverse, asSlot(traverse)},
    {Py_tp_clear, asSlot(clear)},
    {Py_tp_repr, asSlot(repr)},
    {Py_tp_call, asSlot(PyVectorcall_Call)},
    {Py_tp_getset, properties},
    {Py_tp_members, members},
    {0, nullptr},
};

PyType_Spec spec = {"vantrace.event", sizeof(EventObject), entrySize,
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
