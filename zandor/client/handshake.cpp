#include "handshake.hpp"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "clock.hpp"
#include "courier.hpp"
#include "zandor/client/packets.hpp"
#include "zandor/client/test_point.h"

namespace zandor::client {

namespace {

constinit std::atomic<std::uint64_t> epochs{0};

bool isRefused(const Client& client, const char* host) noexcept {
    for (const auto& known : client.refused)
        if (strcmp(known, host) == 0)
            return true;
    return false;
}

void noteRefusal(Client& client, const char* host) noexcept {
    strncpy(client.refused[client.refusals++ % refusalsKept], host, hostNameBytes - 1);
}

void closeFile(int& file) noexcept {
    if (file >= 0)
        close(file);
    file = -1;
}

int connectTo(int folder, const char* host) noexcept {
    const int socket = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (socket < 0)
        return -1;
    const sockaddr_un address = addressIn(folder, host);
    int error = 0;
    if (connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        error = errno;
    else if (!isOwnUser(socket))
        error = EPERM;
    if (error == 0)
        return socket;
    close(socket);
    errno = error;
    return -1;
}

/// Says who the client is, and passes what it counts in.
bool greet(Session& session, const Client& client) noexcept {
    SharedMemory counters = makeShared("zandor-counters", sizeof(wire::Counters));
    if (!counters.mapping)
        return false;
    session.counters = counters.mapping;
    session.counters.as<wire::Counters>()->magic = wire::magic;
    wire::Hello hello{wire::magic,
                      wire::version,
                      static_cast<std::uint32_t>(wire::Request::join),
                      sizeof(wire::RingHeader),
                      sizeof(wire::Record),
                      sizeof(wire::Counters),
                      0,
                      {}};
    memcpy(hello.name, client.name, sizeof hello.name);
    const bool isSent = sendPacket(session.socket, &hello, sizeof hello, counters.descriptor);
    close(counters.descriptor);
    return isSent;
}

bool isPowerOfTwo(std::uint32_t number) noexcept {
    return number != 0 && (number & (number - 1)) == 0;
}

bool isSound(const wire::Welcome& welcome) noexcept {
    return welcome.magic == wire::magic && welcome.version == wire::version &&
           welcome.outcome == static_cast<std::uint32_t>(wire::Outcome::welcome) &&
           welcome.ringSlots > 0 && welcome.ringSlots <= wire::maxRingSlots &&
           welcome.controlBytes ==
               sizeof(wire::Control) + welcome.ringSlots * sizeof(wire::RingSlot) &&
           isPowerOfTwo(welcome.dataBytes) && welcome.dataBytes >= wire::minDataBytes &&
           welcome.dataBytes <= wire::maxDataBytes && welcome.namesBytes % 4096 == 0 &&
           welcome.namesBytes >= wire::minNamesBytes && welcome.namesBytes <= wire::maxNamesBytes;
}

/// Takes the host's answer; whether the session is good.
bool enter(Session& session, const wire::Welcome& welcome, int control,
           wire::Clock clock) noexcept {
    if (!isSound(welcome) || control < 0)
        return false;
    session.control = mapForReading(control, welcome.controlBytes);
    session.slotRings = mapPrivate(welcome.ringSlots * sizeof(std::uint32_t));
    if (!session.control || !session.slotRings)
        return false;
    session.hostsNumber = welcome.session;
    session.ringSlots = welcome.ringSlots;
    session.namesBytes = welcome.namesBytes;
    session.dataBytes = welcome.dataBytes;
    session.clock = clock;
    session.rings.store(0, std::memory_order_relaxed);
    session.stage = Session::Stage::joined;
    ZANDOR_TEST_POINT("client.session.entered");
    session.epoch.store(epochs.fetch_add(1) + 1);
    return true;
}

Session* freeSession(Client& client) noexcept {
    for (Session& session : client.sessions)
        if (session.stage == Session::Stage::none)
            return &session;
    return nullptr;
}

/// One whose lease ran out gives way to a host that is there.
Session* sessionFor(Client& client) noexcept {
    if (Session* session = freeSession(client))
        return session;
    for (std::size_t host = 0; host < mostHosts; ++host)
        if (leaseOf(client.sessions[host]) < monotonicNow()) {
            leave(client, host);
            break;
        }
    return freeSession(client);
}

/// False where the answer came while there was no descriptor left for what belongs to it.
bool hearWelcome(Client& client, std::size_t host) noexcept {
    Session& session = client.sessions[host];
    wire::Welcome welcome{};
    int control = -1;
    const Receipt receipt = receivePacket(session.socket, &welcome, sizeof welcome, control);
    const bool isIncomplete = receipt == Receipt::packet && isSound(welcome) && control < 0;
    if (receipt == Receipt::packet && enter(session, welcome, control, client.clock)) {
        ZANDOR_TEST_POINT("client.joined");
    } else if (receipt != Receipt::nothing) {
        if (!isIncomplete)
            noteRefusal(client, session.host);
        leave(client, host);
    }
    closeFile(control);
    return !isIncomplete;
}

void hearRenewal(Client& client, std::size_t host) noexcept {
    wire::Renewal renewal{};
    int none = -1;
    if (receivePacket(client.sessions[host].socket, &renewal, sizeof renewal, none) == Receipt::end)
        leave(client, host);
    closeFile(none);
}

}  // namespace

bool join(Client& client, int folder, const char* host) noexcept {
    if (strlen(host) >= hostNameBytes || isRefused(client, host))
        return true;
    Session* const session = sessionFor(client);
    if (!session)
        return true;
    int socket = connectTo(folder, host);
    if (socket < 0)
        return errno == ECONNREFUSED || errno == ENOENT || errno == EPERM;
    session->socket = socket;
    memset(session->host, 0, sizeof session->host);
    strncpy(session->host, host, hostNameBytes - 1);
    session->stage = Session::Stage::greeted;
    ZANDOR_TEST_POINT("client.connected");
    if (!greet(*session, client))
        leave(client, static_cast<std::size_t>(session - client.sessions));
    return session->stage == Session::Stage::greeted;
}

bool hear(Client& client, std::size_t host) noexcept {
    if (client.sessions[host].stage == Session::Stage::greeted)
        return hearWelcome(client, host);
    hearRenewal(client, host);
    return true;
}

void leave(Client& client, std::size_t host) noexcept {
    Session& session = client.sessions[host];
    if (session.stage == Session::Stage::none)
        return;
    setWanted(client, host, false);
    session.epoch.store(0);
    session.stage = Session::Stage::leaving;
    takeApart(session);
}

bool takeApart(Session& session) noexcept {
    if (session.stage == Session::Stage::none)
        return true;
    if (session.stage != Session::Stage::leaving || session.users.load() != 0)
        return false;
    closeFile(session.socket);
    unmap(session.control);
    unmap(session.counters);
    unmap(session.slotRings);
    session.stage = Session::Stage::none;
    return true;
}

std::int64_t leaseOf(const Session& session) noexcept {
    return session.stage == Session::Stage::joined ? readShared(session.controlBlock().leaseUntil)
                                                   : 0;
}

namespace {

/// By its own thread, which alone changes what is wanted of it, or the only one after a fork.
void noteWhetherWanted(const Client& client) noexcept {
    const std::uint32_t bit = 1u << (&client - clients);
    if (client.wanted.load(std::memory_order_relaxed) != 0)
        wantedClients.fetch_or(bit, std::memory_order_relaxed);
    else
        wantedClients.fetch_and(~bit, std::memory_order_relaxed);
}

}  // namespace

void setWanted(Client& client, std::size_t host, bool isWanted) noexcept {
    const std::uint32_t bit = 1u << host;
    // Relaxed: a wish, which threads see soon; what they need to follow it is behind the epoch.
    if (isWanted)
        client.wanted.fetch_or(bit, std::memory_order_relaxed);
    else
        client.wanted.fetch_and(~bit, std::memory_order_relaxed);
    noteWhetherWanted(client);
}

void abandonSessions(Client& client) noexcept {
    client.wanted.store(0);
    noteWhetherWanted(client);
    for (Session& session : client.sessions) {
        if (session.stage == Session::Stage::none)
            continue;
        close(session.socket);
        unmap(session.slotRings);
        // What is shared with the host was not mapped in the child.
        session.control = session.counters = {};
        session.epoch.store(0);
        session.users.store(0);
        session.stage = Session::Stage::none;
    }
    close(client.wakeUp);
}

}  // namespace zandor::client
