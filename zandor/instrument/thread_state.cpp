#include "thread_state.hpp"

#include <climits>
#include <new>

#include "blocks.hpp"
#include "control_registry.hpp"
#include "listener_array.hpp"
#include "process_state.hpp"
#include "thread_slabs.hpp"
#include "waiting.hpp"
#include "zandor/instrument/lock.hpp"

namespace instrument::detail {
namespace {

constinit ThreadState nobody{};

// 0: not made yet; else the key and 1. The exchange that makes it releases, each look acquires.
constinit std::atomic<unsigned> endKey{0};

void threadEnds(void* state) noexcept;

pthread_key_t threadEndKey() noexcept {
    if (const unsigned known = endKey.load(std::memory_order_acquire))
        return known - 1;
    pthread_key_t made{};
    pthread_key_create(&made, threadEnds);
    unsigned first = 0;
    if (endKey.compare_exchange_strong(first, made + 1))
        return made;
    pthread_key_delete(made);
    return first - 1;
}

// While the key's number is small: setting a key of a high number allocates, which a signal handler
// may not.
[[maybe_unused]] const pthread_key_t earlyKey = threadEndKey();

void releaseTagged(ThreadState& state) noexcept {
    while (TaggedSource* tagged = state.tagged) {
        state.tagged = tagged->next;
        endThreadSource(*tagged->source.info);
        SourcePtr::release(tagged->source.info);
        freeBlock(tagged, sizeof(TaggedSource));
    }
}

void releaseState(ThreadState& state) noexcept {
    const SignalsHeld held;
    threadLocals.ended = true;
    threadLocals.state = &nobody;
    endThreadSource(*state.source.info);
    SourcePtr::release(state.source.info);
    releaseTagged(state);
    state.source = {};
    state.listenerData = {};
    state.lane = {};
    state.laneListeners = {};
    state.scopes.clear();
    state.endingRounds = 0;
    state.owner.store(nullptr, std::memory_order_relaxed);
    giveBackThreadState(state);
    processState().threadStates.fetch_sub(1, std::memory_order_relaxed);
}

// Re-armed but in the last rounds, so that other destructors' events still have their source. One
// round less than there are, for a state that was made by the first round's destructors.
void threadEnds(void* value) noexcept {
    auto& state = *static_cast<ThreadState*>(value);
    if (state.owner.load(std::memory_order_relaxed) != &threadLocals)
        return;  // left over from before a fork
    if (++state.endingRounds < PTHREAD_DESTRUCTOR_ITERATIONS - 1)
        pthread_setspecific(threadEndKey(), &state);
    else
        releaseState(state);
}

/// Where the thread may be inside all listeners of its lane, it is for a moment only.
bool mayBeInside(const ThreadState& state, const InstrumentListener& listener) noexcept {
    // Pairs with the release when a delivery goes on to another listener, or ends.
    const void* const calling = state.calling.load(std::memory_order_acquire);
    return calling == &listener || isLaneMark(calling);
}

}  // namespace

constinit thread_local ThreadLocals threadLocals{&nobody, nullptr, nullptr, false};

ThreadState* ThreadState::make() noexcept {
    const SignalsHeld held;
    if (ThreadState* made = find())
        return made;  // by a signal handler
    if (threadLocals.ended)
        return nullptr;
    enterProcess();
    SourceInfo* info = makeThreadSource(threadLocals.givenName());
    if (!info)
        return nullptr;
    ThreadState* state = takeThreadState();
    if (!state) {
        SourcePtr::release(info);
        return nullptr;
    }
    state->source = {info, info->id, 0};
    state->owner.store(&threadLocals, std::memory_order_relaxed);
    threadLocals.state = state;
    pthread_setspecific(threadEndKey(), state);
    processState().threadStates.fetch_add(1, std::memory_order_relaxed);
    processState().threadStatesMade.fetch_add(1, std::memory_order_relaxed);
    return state;
}

ThreadSource* ThreadState::taggedSource(std::uint64_t tag) noexcept {
    for (TaggedSource* known = tagged; known; known = known->next)
        if (known->tag == tag)
            return &known->source;
    void* memory = allocateBlock(sizeof(TaggedSource));
    SourceInfo* info = memory ? makeThreadSource(threadLocals.givenName()) : nullptr;
    if (!info) {
        if (memory)
            freeBlock(memory, sizeof(TaggedSource));
        return nullptr;
    }
    tagged = ::new (memory) TaggedSource{tag, {info, info->id, 0}, tagged};
    return &tagged->source;
}

ThreadStateCounts threadStateCounts() noexcept {
    const ProcessState& state = processState();
    return {state.threadStates.load(std::memory_order_relaxed),
            state.threadStatesMade.load(std::memory_order_relaxed)};
}

void waitUntilNobodyIsInside(const InstrumentListener& listener) noexcept {
    // Pairs with the light fence between a delivery's announcement of its listener and its check.
    heavyFence();
    const ThreadState* own = ThreadState::find();
    forEachThread([&](ThreadState& state) {
        Backoff backoff;
        while (&state != own && mayBeInside(state, listener))
            backoff.wait();
    });
}

}  // namespace instrument::detail
