#include "code_table.hpp"

#include "line_table.hpp"
#include "object_copies.hpp"
#include "own_memory.hpp"

namespace vantrace {

namespace {

// A program may make code without end: what is known is learned anew then.
constexpr std::size_t mostCodes = 50'000;
constexpr Py_ssize_t mostInstructions = 1 << 24;

/// Where the instruction stands in the code, in bytes; none where it stands elsewhere.
std::optional<std::size_t> offsetIn(const PyCodeObject* address, Py_ssize_t instructions,
                                    const void* instruction) noexcept {
    const auto first = reinterpret_cast<std::uintptr_t>(address->co_code_adaptive);
    const auto at = reinterpret_cast<std::uintptr_t>(instruction);
    // The one before the first: the frame is about to begin.
    if (at + sizeof(_Py_CODEUNIT) == first)
        return 0;
    const std::size_t size = static_cast<std::size_t>(instructions) * sizeof(_Py_CODEUNIT);
    return at >= first && at - first < size ? std::optional(at - first) : std::nullopt;
}

}  // namespace

int KnownCode::lineAt(std::size_t offset) const noexcept {
    return vantrace::lineAt(lineTable, firstLine, offset);
}

Place CodeTable::placeOf(const Frame& copy) {
    const auto code = valueAt<PyCodeObject>(copy.f_code);
    if (!code || Py_TYPE(&*code) != &PyCode_Type || Py_SIZE(&*code) < 0 ||
        Py_SIZE(&*code) > mostInstructions)
        return {};
    const auto offset = offsetIn(copy.f_code, Py_SIZE(&*code), copy.prev_instr);
    const Entry* const entry = offset ? entryOf(copy.f_code, *code) : nullptr;
    return entry ? Place{&entry->code, *offset, entry->number} : Place{};
}

const CodeTable::Entry* CodeTable::entryOf(const PyCodeObject* address, const PyCodeObject& copy) {
    const Marks marks{copy.co_filename, copy.co_qualname, copy.co_linetable, copy.co_firstlineno,
                      Py_SIZE(&copy)};
    const auto known = entries_.find(address);
    if (known != entries_.end() && known->second.marks == marks)
        return &known->second;
    Entry entry{marks, next_, {}};
    if (!learn(copy, entry.code))
        return nullptr;
    ++next_;
    if (entries_.size() >= mostCodes)
        entries_.clear();
    return &(entries_.insert_or_assign(address, std::move(entry)).first->second);
}

bool CodeTable::learn(const PyCodeObject& copy, KnownCode& code) const {
    auto file = copyText(copy.co_filename);
    auto function = copyText(copy.co_qualname);
    auto lineTable = copyBytes(copy.co_linetable);
    if (!file || !function || !lineTable)
        return false;
    code.isSkipped =
        selection_.isOwn(*file) || (!selection_.withLibraries && selection_.isLibrary(*file));
    code.file = std::move(*file);
    code.function = std::move(*function);
    code.firstLine = copy.co_firstlineno;
    code.lineTable = std::move(*lineTable);
    return true;
}

}  // namespace vantrace
