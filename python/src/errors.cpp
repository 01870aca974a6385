#include "errors.hpp"

#include <cstdarg>
#include <filesystem>
#include <new>
#include <stdexcept>
#include <string>
#include <system_error>

#include "python_exception.hpp"
#include "zandor/runtime/factory.hpp"
#include "zandor/runtime/zandor.hpp"

namespace vantrace {

namespace {

// Immortal, as the module is.
PyObject* notLoadedError = nullptr;
PyObject* pluginError = nullptr;

void set(PyObject* type, const char* text) noexcept {
    const Ref message =
        Ref::steal(PyUnicode_DecodeUTF8(text, static_cast<Py_ssize_t>(strlen(text)), "replace"));
    if (message)
        PyErr_SetObject(type, message.get());
}

/// OSError(errno, strerror, filename), which gives the subclass for the number.
void setOSError(const std::error_code& code, const char* text, const std::filesystem::path& file) {
    const bool isErrno =
        code.category() == std::system_category() || code.category() == std::generic_category();
    if (!isErrno)
        return set(PyExc_OSError, text);
    const std::string reason = code.message();
    const Ref path = Ref::steal(PyUnicode_DecodeFSDefault(file.c_str()));
    const Ref arguments = Ref::steal(
        path && !file.empty() ? Py_BuildValue("(isO)", code.value(), reason.c_str(), path.get())
                              : Py_BuildValue("(is)", code.value(), text));
    if (arguments)
        PyErr_SetObject(PyExc_OSError, arguments.get());
}

Ref newError(const char* name, const char* doc, PyObject* base) {
    return Ref::take(PyErr_NewExceptionWithDoc(name, doc, base, nullptr));
}

}  // namespace

void addErrors(PyObject* module) {
    notLoadedError =
        newError("vantrace.NotLoadedError",
                 "What was called belongs to a plug-in that is not loaded.", PyExc_RuntimeError)
            .release();
    pluginError =
        newError("vantrace.PluginError",
                 "A plug-in could not be loaded, or not be unloaded; has the loader's words.",
                 PyExc_ImportError)
            .release();
    check(PyModule_AddObjectRef(module, "NotLoadedError", notLoadedError));
    check(PyModule_AddObjectRef(module, "PluginError", pluginError));
}

void setPythonError() noexcept {
    try {
        throw;
    } catch (const PythonError&) {
        return;
    } catch (const PythonException& error) {
        error.restore();
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
    } catch (const zandor::NotLoadedError& error) {
        set(notLoadedError, error.what());
    } catch (const zandor::PluginError& error) {
        set(pluginError, error.what());
    } catch (const zandor::NameNotFoundError& error) {
        set(PyExc_LookupError, error.what());
    } catch (const kobs::factory::HostTypeError& error) {
        set(PyExc_TypeError, error.what());
    } catch (const zandor::ArgumentRangeError& error) {
        set(PyExc_OverflowError, error.what());
    } catch (const std::filesystem::filesystem_error& error) {
        setOSError(error.code(), error.what(), error.path1());
    } catch (const std::system_error& error) {
        setOSError(error.code(), error.what(), {});
    } catch (const std::out_of_range& error) {
        set(PyExc_IndexError, error.what());
    } catch (const std::length_error& error) {
        set(PyExc_MemoryError, error.what());
    } catch (const std::invalid_argument& error) {
        set(PyExc_ValueError, error.what());
    } catch (const std::exception& error) {
        set(PyExc_RuntimeError, error.what());
    } catch (...) {
        set(PyExc_RuntimeError, "an exception of unknown type");
    }
}

void raise(PyObject* type, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    PyErr_FormatV(type, format, arguments);
    va_end(arguments);
    throw PythonError();
}

}  // namespace vantrace
