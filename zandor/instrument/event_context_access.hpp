// The library's own way into an EventContext.
#pragma once

#include "clock_source.hpp"
#include "zandor/instrument/event_context.hpp"

namespace instrument::detail {

struct EventContextAccess {
    static EventContext ofSet(const ContextSet& set, SourceInfo* source) noexcept {
        return {&set, {}, false, source};
    }
    static EventContext ofArgs(ContextArgs args, bool kept, SourceInfo* source) noexcept {
        return {nullptr, args, kept, source};
    }
    static EventContext timed(const ContextSet& set, SourceInfo* source,
                              std::int64_t time) noexcept {
        return {&set, source, time};
    }
    /// EventContext::ticks, inline.
    static std::uint64_t ticks(const EventContext& context) noexcept {
        if (context.ticks_ == 0)
            context.ticks_ = readTicks();
        return context.ticks_;
    }
};

}  // namespace instrument::detail
