#include "event_object.hpp"

#include <array>
#include <new>

#include "instrument_cache.hpp"

namespace vantrace {

using instrument::Opaque;

namespace {

// Objects that ended wait here for their next use, by the size of their context. Guarded by the
// interpreter's lock.
struct FreeEvents {
    static constexpr std::size_t most = 16;
    std::size_t count;
    std::array<EventObject*, most> objects;
};
constinit std::array<FreeEvents, 5> freeEvents{};

EventObject* allocate(PyTypeObject* type, Py_ssize_t size) {
    if (static_cast<std::size_t>(size) < freeEvents.size()) {
        FreeEvents& free = freeEvents[static_cast<std::size_t>(size)];
        if (free.count != 0) {
            EventObject* event = free.objects[--free.count];
            PyObject_InitVar(reinterpret_cast<PyVarObject*>(event), type, size);
            return event;
        }
    }
    EventObject* event = PyObject_GC_NewVar(EventObject, type, size);
    if (!event)
        throw PythonError();
    new (&event->entered) Entered();
    new (&event->outer) std::unique_ptr<std::vector<Entered>>();
    event->isEntered = false;
    return event;
}

void release(EventObject* event) noexcept {
    const auto size = static_cast<std::size_t>(event->contextSize());
    if (size < freeEvents.size() && freeEvents[size].count < FreeEvents::most) {
        FreeEvents& free = freeEvents[size];
        free.objects[free.count++] = event;
        return;
    }
    event->entered.~Entered();
    event->outer.~unique_ptr();
    PyObject_GC_Del(event);
}

EventObject* makeEvent(PyTypeObject* type, vectorcallfunc call, const Opaque* instrument,
                       PyObject* name, PyObject* const* values, PyObject* names) {
    const Py_ssize_t size = names ? PyTuple_GET_SIZE(names) : 0;
    EventObject* event = allocate(type, size);
    event->head.call = call;
    event->instrument = instrument;
    event->name = Py_NewRef(name);
    event->names = Py_XNewRef(names);
    for (Py_ssize_t i = 0; i < size; ++i)
        event->values()[i] = Py_NewRef(values[i]);
    event->state = size == 0 ? ContextState::made : ContextState::atoms;
    if (size != 0 && !areAtoms(values, static_cast<std::size_t>(size))) {
        event->state = ContextState::mixed;
        PyObject_GC_Track(objectOf(event));
    }
    return event;
}

/// A float, or an int of 64 bits: numbers of which nobody can tell one object from another.
bool asPlainNumber(PyObject* object, instrument::ContextValue& value) {
    return asFrequentNumber(object, value) ||
           (PyLong_CheckExact(object) && asContextNumber(object, value));
}

/// Numbers in the place of those that the context had.
bool replaceNumbers(EventObject& event, PyObject* const* values) {
    for (Py_ssize_t i = 0; i < event.contextSize(); ++i) {
        PyObject* const before = event.values()[i];
        if (values[i] == before)
            continue;  // as constants and small integers mostly are
        if (!asPlainNumber(values[i], event.args()[i].value))
            return false;
        event.values()[i] = Py_NewRef(values[i]);
        Py_DECREF(before);
    }
    return true;
}

/// Whether the object can stand for a later event of the same shape once nobody else has it: it
/// keeps nothing alive meanwhile but its name and numbers.
bool canBeSpare(EventObject& event) {
    instrument::ContextValue number;
    for (Py_ssize_t i = 0; i < event.contextSize(); ++i)
        if (!asPlainNumber(event.values()[i], number))
            return false;
    return event.contextSize() == 0 || makeContext(event.values(), event.names, event.args());
}

/// The spare event of a name with these values, where it has such names and is in nobody's hands.
PyObject* useSpare(const KnownName& known, PyObject* const* values, PyObject* names) {
    if (!known.spare || Py_REFCNT(known.spare) != 1)
        return nullptr;
    EventObject& event = eventOf(known.spare);
    if (event.names != names || event.isEntered || event.outer) [[unlikely]]
        return nullptr;
    if (names && !replaceNumbers(event, values))
        return nullptr;
    return Py_NewRef(known.spare);
}

/// The next such event of that name will be the same object, unless it is still in use then.
void keepSpare(KnownName& known, EventObject& event) {
    if (known.spare && Py_REFCNT(known.spare) != 1)
        return;  // events inside events of their own name come and go by the free lists
    if (!canBeSpare(event))
        return;
    event.state = ContextState::made;
    PyObject* before = known.spare;
    known.spare = Py_NewRef(objectOf(&event));
    Py_XDECREF(before);
}

}  // namespace

PyObject* newEvent(PyTypeObject* type, vectorcallfunc call, PyObject* name, PyObject* const* values,
                   PyObject* names) {
    const KnownName* const known = knownName(name);
    if (known) [[likely]] {
        if (PyObject* spare = useSpare(*known, values, names)) [[likely]]
            return spare;
    }
    const Opaque* instrument = known ? known->instrument : instrumentOf(name);
    EventObject* event = makeEvent(type, call, instrument, name, values, names);
    // Again: making it may have had the collector run code that looked names up.
    if (KnownName* const now = knownName(name))
        keepSpare(*now, *event);
    return objectOf(event);
}

void deallocateEvent(PyObject* self) noexcept {
    PyTypeObject* type = Py_TYPE(self);
    EventObject& event = eventOf(self);
    PyObject_GC_UnTrack(self);
    if (event.isEntered) [[unlikely]] {
        event.entered = Entered();
        event.isEntered = false;
    }
    event.outer.reset();
    for (Py_ssize_t i = 0; i < event.contextSize(); ++i)
        Py_DECREF(event.values()[i]);
    Py_XDECREF(event.names);
    Py_DECREF(event.name);
    release(&event);
    Py_DECREF(type);
}

}  // namespace vantrace
