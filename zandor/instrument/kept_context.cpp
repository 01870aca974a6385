#include "zandor/instrument/kept_context.hpp"

#include <algorithm>

#include "interned_text.hpp"
#include "recorder_context.hpp"
#include "thread_state.hpp"

namespace instrument {

using detail::ContextTable;
using detail::InternedText;
using detail::NewContext;
using detail::ThreadState;

namespace {

NewContext asGiven(const EventContext& context) noexcept {
    const bool isSet = context.args().empty() && !context.empty();
    return {isSet ? &context.set() : nullptr, context.args(), context.argsAreKept()};
}

}  // namespace

std::size_t keptContextWords(const EventContext& context) noexcept {
    return context.empty() ? 0 : contextWords(asGiven(context));
}

bool keepContext(const EventContext& context, std::uint64_t* words) noexcept {
    ThreadState* const thread = ThreadState::find();
    return thread && encodeContext(asGiven(context), thread->texts, words);
}

ContextSet readContext(ContextWords words) {
    ContextTable table;
    return detail::makeContextSet(table.argsOf(table.placeOf(words)));
}

std::string_view lastingText(std::string_view text) noexcept {
    const InternedText* interned = detail::intern(text);
    return interned ? interned->view() : text;
}

ContextSet lastingSet(const std::vector<ContextEntry>& entries) {
    ContextSet set;
    for (const ContextEntry& entry : entries)
        set.insert({lastingText(entry.name), entry.value});
    return set;
}

bool NamedContext::operator<(const NamedContext& other) const {
    if (name != other.name)
        return name < other.name;
    return std::ranges::lexicographical_compare(
        context, other.context, [](const ContextEntry& a, const ContextEntry& b) {
            return a.name != b.name ? a.name < b.name : a.value < b.value;
        });
}

}  // namespace instrument
