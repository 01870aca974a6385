#include "function.hpp"

#include <algorithm>
#include <memory>
#include <string_view>

#include "../src/errors.hpp"
#include "../src/text.hpp"
#include "subscript.hpp"
#include "tracing.hpp"
#include "zandor/instrument/controls.hpp"

namespace vantrace {

constinit Py_ssize_t functionSlot = -1;

namespace {

using Places = std::map<const instrument::Opaque*, SourcePlace>;

// Never destroyed: code objects are entered until the very end of the process.
Places& places() noexcept {
    static auto& places = *std::make_unique<Places>().release();
    return places;
}

void freeFunction(void* function) noexcept {
    delete static_cast<Function*>(function);
}

std::string textOf(PyObject* str) {
    Ref owner;
    return str && PyUnicode_Check(str) ? std::string(utf8Of(str, owner)) : std::string();
}

std::string globalText(const Frame* frame, const char* name) {
    return textOf(PyDict_GetItemString(frame->f_globals, name));
}

/// "module.qualname". An instrument's name has no NUL inside.
std::string nameOf(const Frame* frame) {
    std::string name = globalText(frame, "__name__");
    if (!name.empty())
        name += '.';
    name += textOf(frame->f_code->co_qualname);
    std::replace(name.begin(), name.end(), '\0', '?');
    return name;
}

/// The code's file; for text that was compiled at run time the file of the module that runs it.
std::string fileOf(const Frame* frame) {
    std::string file = textOf(frame->f_code->co_filename);
    if (!file.starts_with('<') || file.starts_with("<frozen "))
        return file;
    const std::string module = globalText(frame, "__file__");
    return module.empty() ? file : module;
}

bool isImport(const Frame* frame) {
    static constexpr const char* entry = "_find_and_load";
    return PyUnicode_CompareWithASCIIString(frame->f_code->co_name, entry) == 0 &&
           PyUnicode_CompareWithASCIIString(frame->f_code->co_filename,
                                            "<frozen importlib._bootstrap>") == 0;
}

void decideKind(Function& function, const Frame* frame) {
    const Selection& selection = *tracing.selection;
    const std::string file = fileOf(frame);
    if (selection.isOwn(file)) {
        function.kind = FunctionKind::own;
        return;
    }
    const std::string name = nameOf(frame);
    if (selection.isRecorded(name, file)) {
        function.kind = FunctionKind::recorded;
        function.call = instrument::controls.getHandle(name);
        constexpr int suspends = CO_GENERATOR | CO_COROUTINE | CO_ASYNC_GENERATOR;
        if ((frame->f_code->co_flags & suspends) != 0)
            function.resume = instrument::controls.getHandle(name + " (resumed)");
        const SourcePlace place{textOf(frame->f_code->co_filename), frame->f_code->co_firstlineno};
        places().try_emplace(function.call, place);
        if (function.resume)
            places().try_emplace(function.resume, place);
        return;
    }
    function.kind = isImport(frame) ? FunctionKind::import : FunctionKind::collapsed;
}

/// Puts a new function into the code's slot.
Function& addFunction(PyCodeObject* code) {
    auto function = std::make_unique<Function>();
    constexpr int unusual = CO_VARARGS | CO_VARKEYWORDS;
    function->mayBeSubscript =
        code->co_argcount == 2 && code->co_kwonlyargcount == 0 && (code->co_flags & unusual) == 0;
    function->isCoroutine =
        (code->co_flags & (CO_COROUTINE | CO_ITERABLE_COROUTINE | CO_ASYNC_GENERATOR)) != 0;
    check(_PyCode_SetExtra(reinterpret_cast<PyObject*>(code), functionSlot, function.get()));
    return *function.release();
}

}  // namespace

void requestFunctionSlot() {
    functionSlot = _PyEval_RequestCodeExtraIndex(freeFunction);
    if (functionSlot < 0)
        raise(PyExc_RuntimeError, "other tools took all extra slots of code objects");
}

Function* learnFunction(const Frame* frame, std::uint32_t session) noexcept {
    PyObject* type = nullptr;
    PyObject* value = nullptr;
    PyObject* traceback = nullptr;
    PyErr_Fetch(&type, &value, &traceback);  // a generator may be entered with an exception
    if (frame->f_code == tracing.awaited)
        tracing.awaited = nullptr;
    Function* function = knownFunction(frame->f_code);
    try {
        observeSubscripts(frame->f_code);
        if (!function)
            function = &addFunction(frame->f_code);
        decideKind(*function, frame);
        function->session = session;
    } catch (const std::exception&) {
        function = nullptr;
    } catch (const PythonError&) {
        function = nullptr;
    }
    if (!function)
        ++tracing.failedCalls;
    PyErr_Restore(type, value, traceback);
    return function;
}

const Places& sourcePlaces() noexcept {
    return places();
}

}  // namespace vantrace
