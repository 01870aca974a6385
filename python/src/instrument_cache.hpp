// The instruments of Python's event names.
#pragma once

#include <array>
#include <cstddef>

#include "python_api.hpp"
#include "zandor/instrument/control_element.hpp"

namespace vantrace {

/// A name that is kept alive, so that no other object can have its address.
struct KnownName {
    PyObject* name;
    const instrument::Opaque* instrument;
    PyObject* spare;  ///< an event of this name, for its next use; or null
};

/// Names whose hashes end in the same bits, the one that came last first.
struct alignas(64) KnownNames {
    std::array<KnownName, 4> places;
};

/// Guarded by the interpreter's lock.
[[gnu::visibility("hidden")]] extern constinit std::array<KnownNames, 256> knownNames;

inline KnownNames& namesBeside(Py_hash_t hash) noexcept {
    return knownNames[static_cast<std::size_t>(hash) % knownNames.size()];
}

/// What is known of a name, until the next one is looked up. Null where it is not known by its
/// address: names that the interpreter interned, as those in source code are, mostly are.
inline KnownName* knownName(PyObject* name) noexcept {
    if (!PyUnicode_CheckExact(name)) [[unlikely]]
        return nullptr;
    // Where there is no hash yet, it is none of those that are known.
    const Py_hash_t hash = reinterpret_cast<PyASCIIObject*>(name)->hash;
    for (KnownName& known : namesBeside(hash).places)
        if (known.name == name) [[likely]]
            return &known;
    return nullptr;
}

/// The same for a name that is not known by its address.
const instrument::Opaque* lookUpInstrument(PyObject* name);

/// The instrument of a name, registered if it was not. Throws PythonError with a TypeError for what
/// is no str, std::invalid_argument for a name with a NUL inside.
inline const instrument::Opaque* instrumentOf(PyObject* name) {
    const KnownName* const known = knownName(name);
    return known ? known->instrument : lookUpInstrument(name);
}

}  // namespace vantrace
