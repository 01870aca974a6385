#include "instrument_cache.hpp"

#include <array>
#include <cstdint>

#include "errors.hpp"
#include "text.hpp"
#include "zandor/instrument/controls.hpp"

namespace vantrace {

namespace {

/// A name that is kept alive, so that no other object can have its address.
struct KnownName {
    PyObject* name;
    const instrument::Opaque* instrument;
};

// Guarded by the interpreter's lock.
constinit std::array<KnownName, 512> knownNames{};

KnownName& placeOf(PyObject* name) noexcept {
    const auto address = reinterpret_cast<std::uintptr_t>(name);
    return knownNames[(address / 16) % knownNames.size()];
}

const instrument::Opaque* lookUp(PyObject* name) {
    if (!PyUnicode_Check(name)) {
        raise(PyExc_TypeError, "the name of an event must be str, not %s", Py_TYPE(name)->tp_name);
    }
    Ref owner;
    return instrument::controls.getHandle(utf8Of(name, owner));
}

}  // namespace

const instrument::Opaque* instrumentOf(PyObject* name) {
    KnownName& place = placeOf(name);
    if (place.name == name) [[likely]]
        return place.instrument;
    const instrument::Opaque* instrument = lookUp(name);
    if (PyUnicode_CheckExact(name) && PyUnicode_CHECK_INTERNED(name)) {
        PyObject* before = place.name;
        place = {Py_NewRef(name), instrument};
        Py_XDECREF(before);
    }
    return instrument;
}

}  // namespace vantrace
