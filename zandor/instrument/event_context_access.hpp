// The library's own way into an EventContext.
#pragma once

#include "clock_source.hpp"
#include "thread_state.hpp"
#include "zandor/instrument/event_context.hpp"

namespace instrument::detail {

struct EventContextAccess {
    static EventContext ofSet(ThreadState& thread, const ThreadSource& source,
                              const ContextSet& set) noexcept {
        return {thread.listenerData.data(), source.info, source.id, &set, {}, false};
    }
    static EventContext ofArgs(ThreadState& thread, const ThreadSource& source, ContextArgs args,
                               bool kept) noexcept {
        return {thread.listenerData.data(), source.info, source.id, nullptr, args, kept};
    }
    /// The clock was read already.
    static void giveTicks(EventContext& context, std::uint64_t ticks) noexcept {
        context.ticks_ = ticks;
    }
    /// The time of `context` is known already.
    static void giveTime(EventContext& context, std::int64_t time) noexcept {
        context.time_ = time;
        context.timeIsGiven_ = true;
    }
    /// EventContext::ticks, inline.
    static std::uint64_t ticks(const EventContext& context) noexcept {
        if (context.ticks_ == 0)
            context.ticks_ = readTicks();
        return context.ticks_;
    }
};

}  // namespace instrument::detail
