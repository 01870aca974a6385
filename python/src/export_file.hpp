// Paths from Python, and exports to them.
#pragma once

#include <filesystem>
#include <string>
#include <system_error>

#include "errors.hpp"
#include "gil.hpp"
#include "python_api.hpp"

namespace vantrace {

inline std::filesystem::path pathArgument(PyObject* path) {
    PyObject* bytes = nullptr;
    if (!PyUnicode_FSConverter(path, &bytes))
        throw PythonError();
    const Ref owner = Ref::steal(bytes);
    return PyBytes_AS_STRING(bytes);
}

/// Runs an export without the lock; its errors name the file.
template <typename Export>
PyObject* save(PyObject* path, Export exportTo) {
    return guarded([&] {
        const std::filesystem::path file = pathArgument(path);
        try {
            withoutLock([&] { exportTo(file); });
        } catch (const std::system_error& error) {
            throw std::filesystem::filesystem_error(error.what(), file, error.code());
        }
        return Py_NewRef(Py_None);
    });
}

}  // namespace vantrace
