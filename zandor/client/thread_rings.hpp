// The rings of the calling thread.
#pragma once

#include <atomic>
#include <cstdint>

#include "client_state.hpp"
#include "ring.hpp"

namespace zandor::client {

/// Stands in memory that is wiped on fork: all-zero is its first state.
struct ThreadRings {
    /// While the thread is putting an event: one in a signal handler is dropped then. Relaxed: only
    /// handlers on this thread look.
    std::atomic<bool> isBusy;
    std::uint32_t number;  ///< of the thread, from 1; 0: not yet given
    int endingRounds;
    std::uint64_t serial;
    Ring rings[mostClients][mostHosts];

    /// The calling thread's; null where the system gives no memory, or the thread is past its end.
    static ThreadRings* find() noexcept;

    /// The ring for a session that wants events, made where there is none; null where that fails,
    /// which is counted.
    Ring* ringFor(std::size_t client, std::size_t host) noexcept {
        Ring& ring = rings[client][host];
        // Relaxed: the ring belongs to this thread, and the number only tells whether it is old.
        const std::uint64_t epoch =
            clients[client].sessions[host].epoch.load(std::memory_order_relaxed);
        if (ring.isOpen() && ring.epoch() == epoch) [[likely]]
            return &ring;
        return makeRing(ring, clients[client].sessions[host], epoch);
    }

    /// Forgets the calling thread's, in a child after fork.
    static void forget() noexcept;

  private:
    static ThreadRings* make() noexcept;
    [[gnu::cold]] Ring* makeRing(Ring& ring, Session& session, std::uint64_t epoch) noexcept;
};

/// The calling thread's rings, where it has some.
extern constinit thread_local ThreadRings* ownRings;

inline ThreadRings* ThreadRings::find() noexcept {
    ThreadRings* const own = ownRings;
    return own ? own : make();
}

void nameThisThread(const char* name) noexcept;

}  // namespace zandor::client
