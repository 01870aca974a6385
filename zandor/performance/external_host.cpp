#include "zandor/performance/external_host.hpp"

#include <signal.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <new>
#include <system_error>
#include <utility>

#include "zandor/client/packets.hpp"
#include "zandor/client/test_point.h"
#include "zandor/instrument/clock.hpp"
#include "zandor/instrument/external_accounts.hpp"
#include "zandor/instrument/lock.hpp"

namespace instrument::detail {

using zandor::client::Receipt;
using zandor::client::receivePacket;
using zandor::client::sendPacket;

namespace {

// A host that stops living is forgotten within this time.
constexpr std::int64_t leaseNanoseconds = 2'000'000'000;
constexpr std::chrono::milliseconds renewalPeriod(500);
constexpr std::size_t mostNewcomers = 256;
constexpr std::size_t mostClients = 1024;
constexpr std::size_t mostLines = 64;

FileDescriptor makeWakeUp() {
    FileDescriptor file(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!file)
        throw std::system_error(errno, std::generic_category(), "external events: eventfd");
    return file;
}

/// The process at the other end, if it is of this user; else 0.
pid_t ownProcessAt(int socket) noexcept {
    ucred who{};
    socklen_t bytes = sizeof who;
    const bool isKnown = getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &who, &bytes) == 0;
    return isKnown && who.uid == geteuid() ? who.pid : 0;
}

bool isOfOurVersion(const wire::Hello& untrusted) noexcept {
    return untrusted.magic == wire::magic && untrusted.version == wire::version &&
           untrusted.headerBytes == sizeof(wire::RingHeader) &&
           untrusted.recordBytes == sizeof(wire::Record) &&
           untrusted.countersBytes == sizeof(wire::Counters);
}

/// Another one for each client that any host of this process ever had.
std::uint64_t newSession() noexcept {
    static std::atomic<std::uint64_t> latest{0};
    return ++latest;
}

ExternalAccount accountOf(const ExternalClient& client) {
    ClientAccount account = client.account();
    return {client.session(),  client.name(),     client.processId(),
            account.published, account.delivered, std::move(account.drops)};
}

/// Without memory for it the account stays as it was told of last.
template <class Account>
void tell(const ExternalClient& client, void (*account)(Account)) noexcept {
    try {
        account(accountOf(client));
    } catch (const std::bad_alloc&) {
    }
}

std::string describe(const ExternalClient& client) {
    return "client " + client.name() + " (process " + std::to_string(client.processId()) + ")";
}

}  // namespace

ExternalHost::ExternalHost(std::chrono::milliseconds collectPeriod)
    : collectPeriod_(collectPeriod), wakeUp_(makeWakeUp()) {
    // The program's signals are not for a thread of ours.
    const SignalsHeld signals;
    keeper_ = std::thread([this] { run(); });
}

ExternalHost::~ExternalHost() {
    finish();
}

template <class Compose>
void ExternalHost::say(Compose compose) noexcept {
    if (lines_.size() >= mostLines)
        return;
    try {
        lines_.push_back(compose());
    } catch (const std::bad_alloc&) {
        // The line is lost, rather than what it tells of undone.
    }
}

std::exception_ptr ExternalHost::finish() noexcept {
    {
        const std::lock_guard locked(lock_);
        if (std::exchange(isClosing_, true))
            return nullptr;
    }
    eventfd_write(wakeUp_.get(), 1);
    keeper_.join();
    const std::lock_guard locked(lock_);
    std::exception_ptr failure;
    try {
        refreshLocked();
    } catch (const std::bad_alloc&) {
        failure = std::current_exception();
    }
    for (ExternalClient& client : clients_)
        client.grantUntil(0);
    // Twice: a stop may wait for a start that only the second round finds.
    for (int i = 0; i < 2; ++i) {
        const std::exception_ptr latest = collectLocked();
        failure = failure ? failure : latest;
    }
    for (const ExternalClient& client : clients_)
        tell(client, endExternalAccount);
    clients_.clear();
    newcomers_.clear();
    return failure;
}

void ExternalHost::refresh() {
    const std::lock_guard locked(lock_);
    refreshLocked();
}

std::exception_ptr ExternalHost::collect() {
    const std::lock_guard locked(lock_);
    refreshLocked();
    return collectLocked();
}

std::vector<std::string> ExternalHost::takeLines() {
    const std::lock_guard locked(lock_);
    return std::exchange(lines_, {});
}

void ExternalHost::run() noexcept {
    pthread_setname_np(pthread_self(), "zandor-host");
    while (round()) {
        ZANDOR_TEST_POINT("host.round");
        wait();
    }
}

/// False when there is to be none any more.
bool ExternalHost::round() noexcept {
    const std::lock_guard locked(lock_);
    if (isClosing_)
        return false;
    try {
        keepLeases();
        refreshLocked();
        // Nobody is there to hear of a listener's exception.
        if (collectPeriod_.count() > 0)
            collectLocked();
    } catch (const std::bad_alloc&) {
        isStarved_ = true;  // what was not done is done in a later round
    }
    return true;
}

void ExternalHost::wait() noexcept {
    const auto period =
        collectPeriod_.count() > 0 ? std::min(collectPeriod_, renewalPeriod) : renewalPeriod;
    const auto time = static_cast<int>(period.count());
    try {
        std::vector<pollfd> files = waitedFor();
        poll(files.data(), files.size(), time);
    } catch (const std::bad_alloc&) {
        pollfd wakeUp{wakeUp_.get(), POLLIN, 0};
        poll(&wakeUp, 1, time);
    }
}

std::vector<pollfd> ExternalHost::waitedFor() {
    std::vector<pollfd> files{{wakeUp_.get(), POLLIN, 0}};
    const std::lock_guard locked(lock_);
    // What waits for descriptors or memory would be ready at once, again and again.
    if (isStarved_)
        return files;
    files.push_back({socket_.get(), POLLIN, 0});
    for (const Newcomer& newcomer : newcomers_)
        files.push_back({newcomer.socket.get(), POLLIN, 0});
    for (const ExternalClient& client : clients_)
        if (!client.isGone())
            files.push_back({client.socket(), POLLIN, 0});
    return files;
}

void ExternalHost::keepLeases() {
    const std::int64_t now = clock::now();
    const bool hadRunOut = leaseUntil_ < now;
    leaseUntil_ = now + leaseNanoseconds;
    for (ExternalClient& client : clients_) {
        client.grantUntil(leaseUntil_);
        if (hadRunOut)
            client.wake();
    }
}

void ExternalHost::refreshLocked() {
    isStarved_ = false;
    acceptConnections();
    hearNewcomers();
    for (ExternalClient& client : clients_)
        receiveFrom(client);
    ZANDOR_TEST_POINT("host.refreshed");
}

void ExternalHost::acceptConnections() {
    while (newcomers_.size() < mostNewcomers && !isClosing_) {
        FileDescriptor socket = socket_.accept();
        if (!socket) {
            isStarved_ = isStarved_ || errno == EMFILE || errno == ENFILE;
            return;
        }
        if (const pid_t process = ownProcessAt(socket.get()))
            newcomers_.push_back({std::move(socket), process});
    }
}

void ExternalHost::hearNewcomers() {
    newcomers_.remove_if([this](Newcomer& newcomer) { return hear(newcomer); });
}

/// Whether the newcomer is one no more.
bool ExternalHost::hear(Newcomer& newcomer) {
    // What comes with the hello, and what goes with the answer: refused, it would not come again.
    if (!areFilesLeft(newcomer.socket.get(), 2)) {
        isStarved_ = true;
        return false;
    }
    wire::Hello untrusted{};
    int file = -1;
    const Receipt receipt =
        receivePacket(newcomer.socket.get(), &untrusted, sizeof untrusted, file);
    FileDescriptor counters(file);
    if (receipt == Receipt::nothing)
        return false;
    if (receipt == Receipt::end) {
        refuse(newcomer, wire::Outcome::otherVersion);
        return true;
    }
    if (!isOfOurVersion(untrusted)) {
        refuse(newcomer, wire::Outcome::otherVersion);
        say([&] {
            return "external events: process " + std::to_string(newcomer.processId) +
                   " has a client library of another version and is not heard";
        });
    } else if (untrusted.request == static_cast<std::uint32_t>(wire::Request::list)) {
        answerList(newcomer);
    } else if (clients_.size() >= mostClients) {
        refuse(newcomer, wire::Outcome::refused);
    } else {
        admit(newcomer, std::move(counters), untrusted);
    }
    return true;
}

void ExternalHost::refuse(const Newcomer& newcomer, wire::Outcome outcome) {
    wire::Welcome welcome{};
    welcome.magic = wire::magic;
    welcome.version = wire::version;
    welcome.outcome = static_cast<std::uint32_t>(outcome);
    sendPacket(newcomer.socket.get(), &welcome, sizeof welcome, -1);
}

void ExternalHost::admit(Newcomer& newcomer, FileDescriptor counters,
                         const wire::Hello& untrusted) {
    try {
        clients_.emplace_back(std::move(newcomer.socket), std::move(counters), untrusted,
                              newcomer.processId, newSession(), terms_);
        clients_.back().grantUntil(leaseUntil_);
        clients_.back().welcome();
        ZANDOR_TEST_POINT("host.welcomed");
    } catch (const std::exception& error) {
        say([&] {
            return "external events: process " + std::to_string(newcomer.processId) +
                   " is not heard: " + error.what();
        });
    }
}

void ExternalHost::answerList(const Newcomer& newcomer) {
    wire::ClientReport end{};
    end.magic = wire::magic;
    for (const ExternalClient& client : clients_) {
        const ClientAccount account = client.account();
        wire::ClientReport report{wire::magic,
                                  client.processId(),
                                  client.threads(),
                                  account.published,
                                  account.delivered,
                                  account.dropped(),
                                  {}};
        client.name().copy(report.name, sizeof report.name - 1);
        sendPacket(newcomer.socket.get(), &report, sizeof report, -1);
    }
    sendPacket(newcomer.socket.get(), &end, sizeof end, -1);
}

void ExternalHost::receiveFrom(ExternalClient& client) {
    try {
        isStarved_ = !client.receive() || isStarved_;
    } catch (const std::exception& error) {
        giveUp(client, error);
    }
}

std::exception_ptr ExternalHost::collectLocked() {
    std::exception_ptr failure;
    for (ExternalClient& client : clients_) {
        try {
            client.collect(buffer_);
        } catch (const std::exception& error) {
            giveUp(client, error);
        }
        std::exception_ptr latest = client.takeFailure();
        failure = failure ? failure : latest;
        if (!client.isGone())
            tell(client, setExternalAccount);
    }
    letGoOfGone();
    ZANDOR_TEST_POINT("host.collected");
    return failure;
}

void ExternalHost::giveUp(ExternalClient& client, const std::exception& error) {
    say([&] {
        return "external events: " + describe(client) + " is not heard any more: " + error.what();
    });
    client.giveUp();
}

void ExternalHost::letGoOfGone() {
    clients_.remove_if([](const ExternalClient& client) {
        if (client.isGone())
            tell(client, endExternalAccount);
        return client.isGone();
    });
}

}  // namespace instrument::detail
