// The object behind vantrace.event: what it keeps, how it is made, and how it is used again.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "context.hpp"
#include "python_api.hpp"
#include "zandor/instrument/event_id.hpp"
#include "zandor/instrument/instrument.hpp"

namespace vantrace {

/// An event that was entered and not left yet.
struct Entered {
    const void* thread = nullptr;
    instrument::EventId id;
    std::unique_ptr<CallContext> context;  ///< where it is mixed and the start was delivered
};

struct CallableHead {
    PyObject_VAR_HEAD vectorcallfunc call;
};

/// What is known about the context of an event object.
enum class ContextState : std::uint8_t {
    atoms,    ///< immutable values that were not looked at yet
    mixed,    ///< other values: arguments are made at each entering
    made,     ///< its arguments stand ready, or there is none
    numbers,  ///< the same, as startNumbers takes them
};

/// The context's arguments and its values follow.
struct EventObject {
    CallableHead head;
    const instrument::Opaque* instrument;
    PyObject* name;
    PyObject* names;  ///< of the context: a tuple, or null
    bool isEntered;
    ContextState state;
    Entered entered;
    std::unique_ptr<std::vector<Entered>> outer;  ///< entered before `entered`, latest last

    instrument::ContextArg* args() noexcept {
        return reinterpret_cast<instrument::ContextArg*>(this + 1);
    }
    PyObject** values() noexcept { return reinterpret_cast<PyObject**>(args() + contextSize()); }
    bool isMade() const noexcept { return state >= ContextState::made; }
    /// Whether its context stands ready, and it was never entered by several at once.
    bool isUsual() const noexcept { return isMade() && !outer; }
    Py_ssize_t contextSize() const noexcept { return Py_SIZE(&head); }
    instrument::ContextArgs madeArgs() noexcept {
        if (!isMade())
            return {};
        return {args(), static_cast<std::size_t>(contextSize())};
    }
};
constexpr std::size_t eventEntrySize = sizeof(instrument::ContextArg) + sizeof(PyObject*);

inline EventObject& eventOf(PyObject* self) noexcept {
    return *reinterpret_cast<EventObject*>(self);
}
inline PyObject* objectOf(EventObject* event) noexcept {
    return reinterpret_cast<PyObject*>(event);
}

/// An event of the type. Its name, its context's names (a tuple, or null) and values are shared
/// with it. Throws what instrumentOf and failed Python calls do.
PyObject* newEvent(PyTypeObject* type, vectorcallfunc call, PyObject* name, PyObject* const* values,
                   PyObject* names);
/// The type's tp_dealloc.
void deallocateEvent(PyObject* self) noexcept;

}  // namespace vantrace
