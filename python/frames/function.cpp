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

using instrument::Opaque;

constinit Py_ssize_t functionSlot = -1;

namespace {

using Places = std::map<const Opaque*, SourcePlace>;

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

bool isMadeAtRunTime(std::string_view file) noexcept {
    return file.starts_with('<') && !file.starts_with("<frozen ");
}

/// Whether text that was compiled at run time, outside any module's file, is a library's work: the
/// inside of a named tuple, or of no module and called by a library first.
bool isMadeByLibrary(const Frame* frame, const Function* caller) {
    const std::string module = globalText(frame, "__name__");
    if (!module.empty())
        return module.starts_with("namedtuple_");
    return caller &&
           (caller->kind == FunctionKind::collapsed || caller->kind == FunctionKind::import);
}

bool isImport(const Frame* frame) {
    static constexpr const char* entry = "_find_and_load";
    return PyUnicode_CompareWithASCIIString(frame->f_code->co_name, entry) == 0 &&
           PyUnicode_CompareWithASCIIString(frame->f_code->co_filename,
                                            "<frozen importlib._bootstrap>") == 0;
}

/// Whose work the code is, and with which of the user's patterns it agrees.
FunctionKind kindOf(const Frame* frame, const std::string& name, const Function* caller) {
    const Selection& selection = *tracing.selection;
    std::string file = textOf(frame->f_code->co_filename);
    bool isLibrary = false;
    if (isMadeAtRunTime(file)) {
        file = globalText(frame, "__file__");
        isLibrary = file.empty() && isMadeByLibrary(frame, caller);
    }
    if (selection.isOwn(file))
        return FunctionKind::own;
    if (selection.isRecorded(name, isLibrary || selection.isLibrary(file)))
        return FunctionKind::recorded;
    return isImport(frame) ? FunctionKind::import : FunctionKind::collapsed;
}

void notePlace(const Opaque* instrument, PyCodeObject* code) {
    places().try_emplace(instrument, SourcePlace{textOf(code->co_filename), code->co_firstlineno});
}

void decide(Function& function, const Frame* frame, const Function* caller) {
    const std::string name = nameOf(frame);
    function.kind = kindOf(frame, name, caller);
    if (function.kind != FunctionKind::recorded)
        return;
    function.call = function.resume = instrument::controls.getHandle(name);
    notePlace(function.call, frame->f_code);
    constexpr int suspends = CO_GENERATOR | CO_COROUTINE | CO_ASYNC_GENERATOR;
    if ((frame->f_code->co_flags & suspends) == 0)
        return;
    function.resume = instrument::controls.getHandle(name + " (resumed)");
    notePlace(function.resume, frame->f_code);
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

Function* learnFunction(const Frame* frame, const Frame* caller) noexcept {
    PyObject* type = nullptr;
    PyObject* value = nullptr;
    PyObject* traceback = nullptr;
    PyErr_Fetch(&type, &value, &traceback);  // a generator may be entered with an exception
    if (frame->f_code == tracing.awaited) {
        tracing.awaited = nullptr;
        return nullptr;
    }
    Function* function = knownFunction(frame->f_code);
    try {
        observeSubscripts(frame->f_code);
        if (!function)
            function = &addFunction(frame->f_code);
        decide(*function, frame, caller ? knownFunction(caller->f_code) : nullptr);
        function->session = tracing.session;
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
