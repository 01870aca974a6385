// Which event the time of a thread belongs to: at each instant the innermost, of those open the
// last to start.
#pragma once

#include <algorithm>
#include <cstdint>

#include "zandor/instrument/saturating.hpp"
#include "zandor/instrument/source_stacks.hpp"

namespace instrument::detail {

/// Events enter by start, longer first at equal starts. Each nanosecond of a source that any event
/// covers goes to exactly one event, also where events overlap without nesting: one that starts
/// inside another is its child and keeps its time, even what lies beyond its parent's end.
template <typename Owner>
class SelfTime {
  public:
    explicit SelfTime(std::size_t sources) : open_(sources) {}

    /// The owner of the innermost event that is open when an event of `source` starts; null for
    /// none. Calls `give(owner, from, nanoseconds)` for the time that passed until then.
    template <typename Give>
    const Owner* advance(std::uint32_t source, std::int64_t start, Give give) {
        auto open = open_.of(source);
        while (!open.empty() && open.top().end <= start)
            close(open, give);
        if (open.empty())
            return nullptr;
        Open& innermost = open.top();
        give(innermost.owner, innermost.givenUntil,
             saturatingSubtract(start, innermost.givenUntil));
        innermost.givenUntil = start;
        return &innermost.owner;
    }

    /// Opens an event, after advance.
    void enter(std::uint32_t source, std::int64_t start, std::int64_t end, const Owner& owner) {
        open_.of(source).push() = {end, start, owner};
    }

    /// Gives what is left of a source.
    template <typename Give>
    void finish(std::uint32_t source, Give give) {
        for (auto open = open_.of(source); !open.empty();)
            close(open, give);
    }

  private:
    struct Open {
        std::int64_t end;
        std::int64_t givenUntil;
        Owner owner;
    };

    template <typename Stack, typename Give>
    void close(Stack& open, Give give) {
        const Open closed = open.top();
        open.pop();
        if (closed.end > closed.givenUntil)
            give(closed.owner, closed.givenUntil,
                 saturatingSubtract(closed.end, closed.givenUntil));
        if (!open.empty())
            open.top().givenUntil =
                std::max({open.top().givenUntil, closed.givenUntil, closed.end});
    }

    SourceStacks<Open> open_;
};

}  // namespace instrument::detail
