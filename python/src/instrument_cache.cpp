#include "instrument_cache.hpp"

#include <algorithm>

#include "errors.hpp"
#include "text.hpp"
#include "zandor/instrument/controls.hpp"

namespace vantrace {

constinit std::array<KnownNames, 256> knownNames{};

namespace {

/// Texts that are made anew for each event are equal, but not the same.
bool isEqual(PyObject* known, PyObject* name, Py_hash_t hash) noexcept {
    return known && reinterpret_cast<PyASCIIObject*>(known)->hash == hash &&
           PyUnicode_Compare(known, name) == 0;
}

void keep(KnownNames& names, KnownName added) noexcept {
    std::rotate(names.places.begin(), names.places.end() - 1, names.places.end());
    const KnownName before = names.places.front();
    Py_INCREF(added.name);
    names.places.front() = added;
    Py_XDECREF(before.name);
    Py_XDECREF(before.spare);
}

const instrument::Opaque* registered(PyObject* name) {
    Ref owner;
    return instrument::controls.getHandle(utf8Of(name, owner));
}

}  // namespace

const instrument::Opaque* lookUpInstrument(PyObject* name) {
    if (!PyUnicode_Check(name))
        raise(PyExc_TypeError, "the name of an event must be str, not %s", Py_TYPE(name)->tp_name);
    if (!PyUnicode_CheckExact(name))
        return registered(name);
    const Py_hash_t hash = PyObject_Hash(name);
    KnownNames& names = namesBeside(hash);
    for (const KnownName& known : names.places)
        if (isEqual(known.name, name, hash))
            return known.instrument;
    const instrument::Opaque* instrument = registered(name);
    keep(names, {name, instrument, nullptr});
    return instrument;
}

}  // namespace vantrace
