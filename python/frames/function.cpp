#include "function.hpp"

#include <algorithm>
#include <memory>
#include <string_view>

#include "../src/text.hpp"
#include "tracing.hpp"
#include "zandor/instrument/controls.hpp"

namespace vantrace {

using instrument::Opaque;

namespace {

using Places = std::map<const Opaque*, SourcePlace>;

// Never destroyed: code objects are entered until the very end of the process.
Places& places() noexcept {
    static auto& places = *std::make_unique<Places>().release();
    return places;
}

std::string textOf(PyObject* str) {
    Ref owner;
    return str && PyUnicode_Check(str) ? std::string(utf8Of(str, owner)) : std::string();
}

std::string globalText(EnteredCode entered, const char* name) {
    return textOf(PyDict_GetItemString(entered.globals, name));
}

/// "module.qualname". An instrument's name has no NUL inside.
std::string nameOf(EnteredCode entered) {
    std::string name = globalText(entered, "__name__");
    if (!name.empty())
        name += '.';
    name += textOf(entered.code->co_qualname);
    std::replace(name.begin(), name.end(), '\0', '?');
    return name;
}

bool isMadeAtRunTime(std::string_view file) noexcept {
    return file.starts_with('<') && !file.starts_with("<frozen ");
}

/// Whether text that was compiled at run time, outside any module's file, is a library's work: the
/// inside of a named tuple, or of no module and called by a library first.
bool isMadeByLibrary(EnteredCode entered, const Function* caller) {
    const std::string module = globalText(entered, "__name__");
    if (!module.empty())
        return module.starts_with("namedtuple_");
    return caller &&
           (caller->kind == FunctionKind::collapsed || caller->kind == FunctionKind::import);
}

bool isImport(EnteredCode entered) {
    static constexpr const char* entry = "_find_and_load";
    return PyUnicode_CompareWithASCIIString(entered.code->co_name, entry) == 0 &&
           PyUnicode_CompareWithASCIIString(entered.code->co_filename,
                                            "<frozen importlib._bootstrap>") == 0;
}

/// Whose work the code is, and with which of the user's patterns it agrees.
FunctionKind kindOf(EnteredCode entered, const std::string& name, const Function* caller) {
    const Selection& selection = *tracing.selection;
    std::string file = textOf(entered.code->co_filename);
    bool isLibrary = false;
    if (isMadeAtRunTime(file)) {
        file = globalText(entered, "__file__");
        isLibrary = file.empty() && isMadeByLibrary(entered, caller);
    }
    if (selection.isOwn(file))
        return FunctionKind::own;
    if (selection.isRecorded(name, isLibrary || selection.isLibrary(file)))
        return FunctionKind::recorded;
    return isImport(entered) ? FunctionKind::import : FunctionKind::collapsed;
}

/// Of several functions of a name the latest counts, as of a notebook's cell that was run again; a
/// trace keeps the place of the first.
void notePlace(const Opaque* instrument, PyCodeObject* code) {
    const auto [place, isNew] = places().insert_or_assign(
        instrument, SourcePlace{textOf(code->co_filename), code->co_firstlineno});
    if (isNew)
        instrument::controls.setPlace(instrument, place->second.file,
                                      static_cast<std::uint32_t>(place->second.line));
}

}  // namespace

Function newFunction(const PyCodeObject* code) noexcept {
    Function function{};
    constexpr int unusual = CO_VARARGS | CO_VARKEYWORDS;
    function.mayBeSubscript =
        code->co_argcount == 2 && code->co_kwonlyargcount == 0 && (code->co_flags & unusual) == 0;
    function.isCoroutine =
        (code->co_flags & (CO_COROUTINE | CO_ITERABLE_COROUTINE | CO_ASYNC_GENERATOR)) != 0;
    return function;
}

void decide(Function& function, EnteredCode entered, const Function* caller) {
    const std::string name = nameOf(entered);
    function.session = tracing.session;
    function.usual = 0;
    function.kind = kindOf(entered, name, caller);
    if (function.kind != FunctionKind::recorded)
        return;
    if (!function.isCoroutine)
        function.usual = tracing.session;
    function.call = function.resume = instrument::controls.getHandle(name);
    notePlace(function.call, entered.code);
    constexpr int suspends = CO_GENERATOR | CO_COROUTINE | CO_ASYNC_GENERATOR;
    if ((entered.code->co_flags & suspends) == 0)
        return;
    function.resume = instrument::controls.getHandle(name + " (resumed)");
    notePlace(function.resume, entered.code);
}
const Places& sourcePlaces() noexcept {
    return places();
}

}  // namespace vantrace
