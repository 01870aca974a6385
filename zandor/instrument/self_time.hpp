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
    /// none. Calls `give(owner, nanoseconds)` for the time that passed until then.
    template <typename Give>
    const Owner* advance(std::uint32_t source, std::int64_t start, Give give) {
        while (!open_.empty(source) && open_.top(source).end <= start)
            close(source, give);
        if (open_.empty(source))
            return nullptr;
        Open& innermost = open_.top(source);
        give(innermost.owner, since(innermost, start));
        innermost.givenUntil = start;
        return &innermost.owner;
    }

    /// Opens an event, after advance.
    void enter(std::uint32_t source, std::int64_t start, std::int64_t end, const Owner& owner) {
        open_.push(source, {end, start, owner});
    }

    /// Gives what is left of a source.
    template <typename Give>
    void finish(std::uint32_t source, Give give) {
        while (!open_.empty(source))
            close(source, give);
    }

  private:
    struct Open {
        std::int64_t end;
        std::int64_t givenUntil;
        Owner owner;
    };

    static std::int64_t since(const Open& open, std::int64_t time) {
        return saturatingSubtract(time, open.givenUntil);
    }

    template <typename Give>
    void close(std::uint32_t source, Give give) {
        const Open closed = open_.top(source);
        open_.pop(source);
        if (closed.end > closed.givenUntil)
            give(closed.owner, since(closed, closed.end));
        if (!open_.empty(source))
            open_.top(source).givenUntil =
                std::max({open_.top(source).givenUntil, closed.givenUntil, closed.end});
    }

    SourceStacks<Open> open_;
};

}  // namespace instrument::detail
