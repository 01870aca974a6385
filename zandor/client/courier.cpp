#include "courier.hpp"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <unistd.h>

#include "clock.hpp"
#include "handshake.hpp"
#include "host_folder.hpp"

namespace zandor::client {

namespace {

constexpr int retryMilliseconds = 500;

class Courier {
  public:
    explicit Courier(Client& client) noexcept : client_(client), folder_(client.folders) {}

    void run() noexcept {
        bool isTimeUp = true;
        while (!client_.isClosing.load()) {
            if (folder_.isToBeRead() && (isTimeUp || folder_.hasNews()))
                joinHosts();
            watchLeases();
            isTimeUp = !wait();
        }
        for (std::size_t host = 0; host < mostHosts; ++host)
            leave(client_, host);
        while (!areAllGone())
            sched_yield();  // others finish a few system calls
    }

  private:
    void joinHosts() noexcept {
        folder_.read([this](int folder, const char* name) {
            if (!isKnown(name) && !join(client_, folder, name))
                folder_.askAgain();
        });
    }
    bool isKnown(const char* name) const noexcept {
        for (const Session& session : client_.sessions)
            if (session.stage != Session::Stage::none && !__builtin_strcmp(session.host, name))
                return true;
        return false;
    }
    bool areAllGone() noexcept {
        bool all = true;
        for (Session& session : client_.sessions)
            all = takeApart(session) && all;
        return all;
    }

    /// Sets which sessions want events, by their leases, and when to look again.
    void watchLeases() noexcept {
        const std::int64_t now = monotonicNow();
        std::int64_t next = now + std::int64_t{retryMilliseconds} * 1'000'000;
        bool isQuiet = folder_.isWatched() && !folder_.isToBeRead();
        for (std::size_t host = 0; host < mostHosts; ++host) {
            Session& session = client_.sessions[host];
            if (session.stage == Session::Stage::leaving)
                isQuiet = takeApart(session) && isQuiet;
            const std::int64_t until = leaseOf(session);
            setWanted(client_, host, until > now);
            if (until > now && until < next)
                next = until;
            isQuiet = isQuiet && session.stage == Session::Stage::none;
        }
        timeout_ = isQuiet ? -1 : static_cast<int>((next - now) / 1'000'000) + 1;
    }

    /// False where nothing happened for so long.
    bool wait() noexcept {
        pollfd files[2 + mostHosts];
        files[0] = {client_.wakeUp, POLLIN, 0};
        files[1] = {folder_.watch(), POLLIN, 0};
        for (std::size_t host = 0; host < mostHosts; ++host) {
            const Session& session = client_.sessions[host];
            const bool isOn =
                session.stage == Session::Stage::greeted || session.stage == Session::Stage::joined;
            files[2 + host] = {isOn ? session.socket : -1, POLLIN, 0};
        }
        const int ready = poll(files, 2 + mostHosts, timeout_);
        if (ready == 0 && !folder_.isWatched())
            folder_.askAgain();
        if (ready <= 0)
            return ready < 0;
        if (files[1].revents)
            folder_.takeNotice();
        for (std::size_t host = 0; host < mostHosts; ++host)
            if (files[2 + host].revents && !hear(client_, host))
                folder_.askAgain();
        return true;
    }

    Client& client_;
    HostFolder folder_;
    int timeout_ = 0;
};

void* runCourier(void* client) noexcept {
    prctl(PR_SET_NAME, "zandor-client", 0, 0, 0);
    Courier(*static_cast<Client*>(client)).run();
    return nullptr;
}

/// The program's signals are not for a thread of ours.
int beginThread(Client& client) noexcept {
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const int error = pthread_create(&client.courier, nullptr, runCourier, &client);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return error;
}

}  // namespace

bool startCourier(Client& client) noexcept {
    client.isClosing.store(false);
    client.wakeUp = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (client.wakeUp < 0)
        return false;
    if (beginThread(client) == 0)
        return true;
    close(client.wakeUp);
    return false;
}

void stopCourier(Client& client) noexcept {
    const std::uint64_t one = 1;
    client.isClosing.store(true);
    while (write(client.wakeUp, &one, sizeof one) < 0 && errno == EINTR) {
    }
    pthread_join(client.courier, nullptr);
    close(client.wakeUp);
}

}  // namespace zandor::client
