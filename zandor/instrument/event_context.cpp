#include "zandor/instrument/event_context.hpp"

#include <new>

#include "context_text.hpp"
#include "event_context_access.hpp"
#include "latest_line.hpp"
#include "source_info.hpp"

namespace instrument {
namespace {

// A name with a NUL behind it.
std::string_view keptName(std::string_view name, bool isKept) {
    if (isKept)
        return name;
    if (const detail::InternedText* text = detail::intern(name))
        return text->view();
    throw std::bad_alloc();
}

}  // namespace

namespace detail {
constinit thread_local LatestLine latestLine;
}

std::uint64_t EventContext::ticks() const {
    return detail::EventContextAccess::ticks(*this);
}

std::int64_t EventContext::time() const {
    return timeIsGiven_ ? time_ : detail::latestLine.timeOf(ticks());
}

std::string_view EventContext::sourceName() const {
    return source_->name();
}

const ContextSet& EventContext::set() const {
    if (!set_) {
        ContextSet made;
        made.reserve(args_.size());
        for (const ContextArg& arg : args_)
            made.insert({keptName(arg.name, argsAreKept_), toText(arg.value)});
        set_ = &made_.emplace(std::move(made));
    }
    return *set_;
}

}  // namespace instrument
