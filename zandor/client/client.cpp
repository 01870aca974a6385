#include "zandor/client/client.h"

#include <pthread.h>
#include <string.h>
#include <unistd.h>

#include "client_state.hpp"
#include "clock.hpp"
#include "courier.hpp"
#include "thread_rings.hpp"
#include "zandor/client/test_point.h"

namespace zandor::client {

constinit Client clients[mostClients] = {};
constinit std::atomic<std::uint32_t> wantedClients{0};

namespace {

/// A handle is no address: the place of a client and its generation there, so that one that was
/// closed is known for ever.
zandor_client* handleOf(std::size_t place, std::uint32_t generation) noexcept {
    return reinterpret_cast<zandor_client*>(std::uintptr_t{generation} << 8 | (place + 1));
}

std::size_t placeOf(const zandor_client* handle) noexcept {
    return (reinterpret_cast<std::uintptr_t>(handle) & 0xff) - 1;
}

std::uint32_t generationOf(const zandor_client* handle) noexcept {
    return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(handle) >> 8);
}

/// The open client behind a handle, or null.
Client* find(const zandor_client* handle) noexcept {
    const std::size_t place = placeOf(handle);
    if (place >= mostClients) [[unlikely]]
        return nullptr;
    Client& client = clients[place];
    // Acquire pairs with the release in open.
    const bool isOpen = client.generation.load(std::memory_order_acquire) == generationOf(handle);
    return isOpen ? &client : nullptr;
}

/// Relaxed: see setWanted.
bool isAnyWanted() noexcept {
    return wantedClients.load(std::memory_order_relaxed) != 0;
}

/// Which hosts want events of a client now, which is 0 in most programs at most times.
std::uint32_t wantedOf(const zandor_client* handle, Client*& client) noexcept {
    client = find(handle);
    // Relaxed: see setWanted.
    return client ? client->wanted.load(std::memory_order_relaxed) : 0;
}

void countWithoutRing(Client& client, std::uint32_t hosts, wire::Drop cause) noexcept {
    for (std::size_t host = 0; host < mostHosts; ++host) {
        Session& session = client.sessions[host];
        const SessionUse use(session, hosts >> host & 1 ? session.epoch.load() : 0);
        if (use)
            session.count(cause);
    }
}

/// In a handler that interrupted the thread where it was using its rings.
void countNested(Client& client, std::uint32_t hosts, ThreadRings& thread) noexcept {
    const std::size_t place = static_cast<std::size_t>(&client - clients);
    std::uint32_t withoutRing = 0;
    for (std::size_t host = 0; host < mostHosts; ++host) {
        if (!(hosts >> host & 1))
            continue;
        Ring& ring = thread.rings[place][host];
        if (ring.isOpen())
            ring.drop(wire::Drop::nested);
        else
            withoutRing |= 1u << host;
    }
    countWithoutRing(client, withoutRing, wire::Drop::nested);
}

/// Calls `put(ring)` for the ring of each host; whether one of them took the event.
template <class Put>
[[gnu::always_inline]] inline bool putToAll(ThreadRings& thread, std::size_t client,
                                            std::uint32_t hosts, Put put) noexcept {
    bool isTaken = false;
    for (; hosts != 0; hosts &= hosts - 1) {
        const auto host = static_cast<std::size_t>(__builtin_ctz(hosts));
        if (Ring* const ring = thread.ringFor(client, host)) [[likely]]
            isTaken |= put(*ring);
    }
    return isTaken;
}

/// An event that cannot be put: the thread has no rings, or a handler interrupted their use.
[[gnu::cold]] void countLost(Client& client, std::uint32_t hosts, ThreadRings* thread) noexcept {
    if (thread)
        countNested(client, hosts, *thread);
    else
        countWithoutRing(client, hosts, wire::Drop::ended);
}

/// The calling thread's rings, marked as in use; null, and the event counted, where they are so
/// already or there are none.
[[gnu::always_inline]] inline ThreadRings* enter(Client& client, std::uint32_t hosts) noexcept {
    ThreadRings* const thread = ThreadRings::find();
    // Only handlers on this thread look, so the compiler's order is enough.
    if (!thread || thread->isBusy.load(std::memory_order_relaxed)) [[unlikely]] {
        countLost(client, hosts, thread);
        return nullptr;
    }
    thread->isBusy.store(true, std::memory_order_relaxed);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    return thread;
}

void exit(ThreadRings& thread) noexcept {
    std::atomic_signal_fence(std::memory_order_seq_cst);
    thread.isBusy.store(false, std::memory_order_relaxed);
}

/// A start or an instant.
[[gnu::noinline]] zandor_event putNamed(wire::RecordKind kind, const zandor_client* handle,
                                        const char* name, const Context& context) noexcept {
    Client* client = nullptr;
    const std::uint32_t hosts = wantedOf(handle, client);
    if (hosts == 0) [[likely]]
        return {0, 0};
    ThreadRings* const thread = enter(*client, hosts);
    if (!thread)
        return {0, 0};
    const std::uint64_t serial = thread->serial + 1;
    const std::uint64_t ticks = readTicks(client->clock);
    const bool isTaken = putToAll(*thread, placeOf(handle), hosts, [&](Ring& ring) {
        return ring.putNamed(kind, name ? name : "", context, serial, ticks);
    });
    thread->serial = isTaken ? serial : thread->serial;
    const std::uint64_t origin = std::uint64_t{client->process} << 32 | thread->number;
    exit(*thread);
    return isTaken ? zandor_event{serial, origin} : zandor_event{0, 0};
}

[[gnu::noinline]] void putStop(const zandor_client* handle, zandor_event event) noexcept {
    Client* client = nullptr;
    const std::uint32_t hosts = wantedOf(handle, client);
    if (event.serial == 0 || hosts == 0 || event.origin >> 32 != client->process)
        return;
    ThreadRings* const thread = enter(*client, hosts);
    if (!thread)
        return;
    const std::uint64_t ticks = readTicks(client->clock);
    const auto origin = static_cast<std::uint32_t>(event.origin);
    putToAll(*thread, placeOf(handle), hosts,
             [&](Ring& ring) { return ring.putStop(origin, event.serial, ticks); });
    exit(*thread);
}

// Openings and closings, one at a time.
constinit pthread_mutex_t opening = PTHREAD_MUTEX_INITIALIZER;

/// The parent's other threads do not exist here; so nothing is locked, nor waited for.
void continueInChild() noexcept {
    opening = PTHREAD_MUTEX_INITIALIZER;
    ThreadRings::forget();
    for (Client& client : clients) {
        if (!(client.generation.load() & 1))
            continue;
        abandonSessions(client);
        client.process = static_cast<std::uint32_t>(getpid());
        if (!startCourier(client))
            client.generation.fetch_add(1);
    }
}

// When the library is loaded: once.
[[maybe_unused]] const int followsForks = pthread_atfork(nullptr, nullptr, continueInChild);

bool begin(Client& client, const char* name) noexcept {
    memset(client.name, 0, sizeof client.name);
    memset(client.refused, 0, sizeof client.refused);
    strncpy(client.name, name ? name : "", sizeof client.name - 1);
    client.folders = runtimeFolders();
    client.clock = findClock();
    client.process = static_cast<std::uint32_t>(getpid());
    return startCourier(client);
}

zandor_client* open(const char* name) noexcept {
    for (std::size_t place = 0; place < mostClients; ++place) {
        Client& client = clients[place];
        const std::uint32_t generation = client.generation.load();
        if (generation & 1)
            continue;
        if (!begin(client, name))
            return nullptr;
        // Release pairs with the acquire in find: who knows the handle sees the client whole.
        client.generation.store(generation + 1, std::memory_order_release);
        return handleOf(place, generation + 1);
    }
    return nullptr;
}

class Opening {
  public:
    Opening() noexcept { pthread_mutex_lock(&opening); }
    ~Opening() { pthread_mutex_unlock(&opening); }
    Opening(const Opening&) = delete;
    Opening& operator=(const Opening&) = delete;
};

}  // namespace

}  // namespace zandor::client

using namespace zandor::client;

zandor_client* zandor_client_open(const char* name) {
    const Opening one;
    return open(name);
}

void zandor_client_close(zandor_client* client) {
    const Opening one;
    Client* const open = find(client);
    if (!open)
        return;
    stopCourier(*open);
    // Last: until then the place is not another's.
    open->generation.fetch_add(1);
}

int zandor_client_is_wanted(const zandor_client* client) {
    Client* ignored = nullptr;
    return wantedOf(client, ignored) != 0;
}

void zandor_client_name_thread(const char* name) {
    nameThisThread(name);
}

zandor_event zandor_client_start(zandor_client* client, const char* name, const char* const* keys,
                                 const char* const* values, size_t n_context) {
    if (!isAnyWanted()) [[likely]]
        return {0, 0};
    return putNamed(wire::RecordKind::start, client, name, {keys, values, n_context});
}

void zandor_client_stop(zandor_client* client, zandor_event event) {
    if (isAnyWanted()) [[unlikely]]
        putStop(client, event);
}

void zandor_client_instant(zandor_client* client, const char* name, const char* const* keys,
                           const char* const* values, size_t n_context) {
    if (isAnyWanted()) [[unlikely]]
        putNamed(wire::RecordKind::instant, client, name, {keys, values, n_context});
}
