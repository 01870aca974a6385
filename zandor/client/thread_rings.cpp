#include "thread_rings.hpp"

#include <limits.h>
#include <pthread.h>
#include <string.h>

namespace zandor::client {

namespace {

constinit thread_local bool hasEnded = false;
constinit thread_local char givenName[wire::nameBytes] = {};
constinit std::atomic<std::uint32_t> threads{0};  // relaxed: the numbers only have to differ

void closeAll(ThreadRings& all) noexcept {
    for (auto& ofClient : all.rings)
        for (Ring& ring : ofClient)
            ring.close();
}

/// What other destructors of the thread produce comes into its rings, too: so they go in the last
/// round.
void endThread(void* memory) noexcept;

pthread_key_t makeKey() noexcept {
    pthread_key_t key{};
    pthread_key_create(&key, endThread);
    return key;
}

// When the library is loaded: a signal handler cannot make one.
const pthread_key_t atThreadEnd = makeKey();

void endThread(void* memory) noexcept {
    auto* const all = static_cast<ThreadRings*>(memory);
    if (++all->endingRounds < PTHREAD_DESTRUCTOR_ITERATIONS - 1) {
        pthread_setspecific(atThreadEnd, memory);
        return;
    }
    hasEnded = true;
    ownRings = nullptr;
    closeAll(*all);
    Mapping mapping{memory, sizeof(ThreadRings)};
    unmap(mapping);
}

}  // namespace

constinit thread_local ThreadRings* ownRings = nullptr;

ThreadRings* ThreadRings::make() noexcept {
    if (hasEnded)
        return nullptr;
    const Mapping mapping = mapPrivate(sizeof(ThreadRings));
    if (!mapping)
        return nullptr;
    ownRings = mapping.as<ThreadRings>();
    pthread_setspecific(atThreadEnd, ownRings);
    return ownRings;
}

void ThreadRings::forget() noexcept {
    if (!ownRings)
        return;
    pthread_setspecific(atThreadEnd, nullptr);
    Mapping mapping{ownRings, sizeof(ThreadRings)};
    unmap(mapping);
    ownRings = nullptr;
}

Ring* ThreadRings::makeRing(Ring& ring, Session& session, std::uint64_t epoch) noexcept {
    ring.close();
    if (number == 0)
        number = threads.fetch_add(1, std::memory_order_relaxed) + 1;
    const SessionUse use(session, epoch);
    return use && ring.open(session, number, givenName) ? &ring : nullptr;
}

void nameThisThread(const char* name) noexcept {
    strncpy(givenName, name ? name : "", sizeof givenName - 1);
}

}  // namespace zandor::client
