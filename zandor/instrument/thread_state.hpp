// What the library keeps for a thread that produces events.
//
// States stand in memory that is wiped on fork, in slabs that stay mapped: others may look at the
// atomic members of any state at any time. A thread's state is made at its first event, and goes to
// another thread, with a new source, when it ends. Events produced by what runs at a thread's end
// still have its source. Making one takes no lock and no malloc: safe in signal handlers.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "interned_text.hpp"
#include "scope_pool.hpp"
#include "short_lane.hpp"
#include "source_info.hpp"
#include "zandor/instrument/fences.hpp"
#include "zandor/instrument/listener_slot.hpp"

namespace instrument {
class InstrumentListener;
}

namespace instrument::detail {

struct ListenerArray;
struct ThreadState;

/// What a thread has whether or not it produced an event. Not wiped on fork: names pass to a child.
struct ThreadLocals {
    ThreadState* state;
    const InternedText* setName;      ///< by setThreadName
    const InternedText* defaultName;  ///< by setDefaultThreadName
    /// The state went at the thread's very end; later events are counted and not delivered.
    bool ended;

    const InternedText* givenName() const noexcept { return setName ? setName : defaultName; }
};

/// A source and its latest serial id.
struct ThreadSource {
    SourceInfo* info;
    std::uint64_t id;  ///< the info's, near at hand
    std::uint64_t serial;
};

/// The source of a thread for events of another virtual machine.
struct TaggedSource {
    std::uint64_t tag;
    ThreadSource source;
    TaggedSource* next;
};

struct alignas(64) ThreadState {
    // What every event touches, in one line.

    /// The locals of the thread whose state it is; another's or none after a fork. Relaxed: only
    /// the thread's own store tells it anything.
    std::atomic<const ThreadLocals*> owner;
    /// Null while the thread delivers no event. Else the listener that it is calling, or the mark
    /// of the thread's lane while it calls all of those that this has; or `noListener` before,
    /// between and after them. What the thread did in a listener it releases when it goes on; those
    /// who wait for the listener acquire it. Relaxed for the thread itself.
    std::atomic<const void*> calling;
    LaneHead lane;
    ThreadSource source;

    alignas(64) std::array<ListenerSlot, listenerSlots + 1> listenerData;
    /// Protects the listeners that the thread is going through, where there are several: released
    /// when it leaves them, acquired by those who free the array.
    std::atomic<const ListenerArray*> snapshot;
    /// Odd while the thread is inside a ReadSection: released at its end, acquired in
    /// everybodyLeft.
    std::atomic<std::uint64_t> readSections;
    alignas(64) LaneListeners laneListeners;
    TaggedSource* tagged;
    ScopePool scopes;
    TextCache texts;

    /// Rounds of thread-specific destructors since the thread began to end.
    int endingRounds;

    /// The calling thread's; made when it has none. Null when the thread is past its end or the
    /// system gives no memory: then its events are counted as suppressed.
    static ThreadState* ofThisThread() noexcept;
    /// The calling thread's, or null when it has none.
    static ThreadState* find() noexcept;

    /// False where the thread has no state, and after a fork.
    bool isOfThisThread() const noexcept;
    /// No listener's address.
    const void* noListener() const noexcept { return this; }
    /// What the thread has in its `calling` while it may be inside any listener of its lane: no
    /// listener's address, nor a state's.
    const void* laneMark() const noexcept { return reinterpret_cast<const std::byte*>(this) + 1; }
    /// Whether the thread delivers an event. For itself and its signal handlers.
    bool isInside() const noexcept { return calling.load(std::memory_order_relaxed) != nullptr; }

    /// The thread's source for a virtual machine; null when the system gives no memory. To be
    /// called while the thread is inside.
    ThreadSource* sourceFor(std::optional<std::uint64_t> tag) noexcept {
        return tag ? taggedSource(*tag) : &source;
    }

  private:
    static ThreadState* make() noexcept;
    ThreadSource* taggedSource(std::uint64_t tag) noexcept;
};
static_assert(offsetof(ThreadState, listenerData) == 64);

/// Whether it is a lane's. All other things that a thread may be calling are aligned.
inline bool isLaneMark(const void* calling) noexcept {
    return (reinterpret_cast<std::uintptr_t>(calling) & 1) != 0;
}

extern constinit thread_local ThreadLocals threadLocals;

inline bool ThreadState::isOfThisThread() const noexcept {
    // Relaxed: a thread's own store, or one that can only make it differ.
    return owner.load(std::memory_order_relaxed) == &threadLocals;
}

inline ThreadState* ThreadState::find() noexcept {
    ThreadState* state = threadLocals.state;
    return state->isOfThisThread() ? state : nullptr;
}

inline ThreadState* ThreadState::ofThisThread() noexcept {
    if (ThreadState* state = find()) [[likely]]
        return state;
    return make();
}

void visitThreads(void (*visitor)(ThreadState&, void*), void* context);
/// Calls `visit(ThreadState&)` for the state of every thread that has one.
template <class Visit>
void forEachThread(Visit visit) {
    visitThreads([](ThreadState& state, void* context) { (*static_cast<Visit*>(context))(state); },
                 &visit);
}

/// Of this process: threads that have a state, and states that were ever made for a thread.
struct ThreadStateCounts {
    std::uint64_t inUse;
    std::uint64_t made;
};
ZANDOR_INSTRUMENT_API ThreadStateCounts threadStateCounts() noexcept;

/// Whether the calling thread is inside a listener.
inline bool isInsideListener() noexcept {
    const ThreadState* state = ThreadState::find();
    return state && state->isInside();
}

/// Returns when no other thread is inside this listener. What happened in it there happened before.
/// Those that begin a call later see what the caller stored before.
void waitUntilNobodyIsInside(const InstrumentListener& listener) noexcept;

}  // namespace instrument::detail
