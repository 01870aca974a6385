#include "interned_text.hpp"

#include <atomic>
#include <limits>
#include <new>

#include "blocks.hpp"
#include "process_state.hpp"
#include "run_file.hpp"
#include "text_table.hpp"
#include "zandor/runtime/console.hpp"

namespace instrument::detail {
namespace {

constinit TextTable<InternedText> texts;
constinit Arena arena;

InternedText* copyText(std::string_view text) noexcept {
    void* memory = arena.allocate(sizeof(InternedText) + text.size() + 1);
    if (!memory)
        return nullptr;
    auto* copy = ::new (memory) InternedText{texts.size(), static_cast<std::uint32_t>(text.size())};
    char* characters = static_cast<char*>(memory) + sizeof(InternedText);
    text.copy(characters, text.size());
    characters[text.size()] = '\0';
    return copy;
}

const InternedText* insertText(std::string_view text, std::uint64_t hash) noexcept {
    const Locked locked(processState().texts);
    if (const InternedText* known = texts.find(text, hash))
        return known;
    InternedText* copy = texts.reserve() ? copyText(text) : nullptr;
    if (!copy)
        return nullptr;
    // Before anybody can find it, so that no record is committed whose texts are not.
    journalText(*copy);
    texts.insert(*copy, hash);
    return copy;
}

}  // namespace

const InternedText& InternedText::fromId(std::uint32_t id) noexcept {
    return *texts.at(id);
}

std::uint32_t internedTextCount() noexcept {
    return texts.size();
}

const InternedText* findInterned(std::string_view text) noexcept {
    return texts.find(text, hashText(text));
}

const InternedText* intern(std::string_view text) noexcept {
    const std::uint64_t hash = hashText(text);
    if (const InternedText* known = texts.find(text, hash))
        return known;
    if (text.size() >= std::numeric_limits<std::uint32_t>::max())
        return nullptr;
    const InternedText* made = insertText(text, hash);
    if (made)
        sayManyTexts("context texts", made->id + 1);
    return made;
}

const InternedText* TextCache::lookUp(std::string_view text, Entry& entry) noexcept {
    const InternedText* found = detail::intern(text);
    if (found)
        entry = {text.data(), found};
    return found;
}

void sayManyTexts(const char* what, std::uint32_t count) noexcept {
    static constinit std::atomic<bool> said{false};
    if (count <= manyTexts || said.exchange(true))
        return;
    utPrintf(
        "instrument: more than %u distinct %s; each stays in memory for the life of the process\n",
        manyTexts, what);
}

}  // namespace instrument::detail
