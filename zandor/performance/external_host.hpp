// The host of external clients: a thread that lets them in and keeps their leases, and the
// collecting of what they publish.
#pragma once

#include <poll.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "zandor/performance/external_client.hpp"
#include "zandor/performance/external_socket.hpp"

namespace instrument::detail {

class ExternalHost {
  public:
    /// Listens. With a period other than 0 its own thread collects, too, that often.
    /// Throws std::runtime_error, std::system_error.
    explicit ExternalHost(std::chrono::milliseconds collectPeriod);
    /// Ends the leases, collects what is there, and lets go of all clients.
    ~ExternalHost();
    ExternalHost(const ExternalHost&) = delete;
    ExternalHost& operator=(const ExternalHost&) = delete;

    void refresh();
    /// Gives the first exception of a listener, after everything was delivered.
    std::exception_ptr collect();
    /// Ends the leases and collects; nothing happens any more after that. Gives the first exception
    /// of a listener.
    std::exception_ptr finish() noexcept;

    /// Lines for the console that came up since the last call, to be written while nothing waits.
    std::vector<std::string> takeLines();

  private:
    using Clients = std::list<ExternalClient>;
    /// A connection that has not said hello.
    struct Newcomer {
        FileDescriptor socket;
        pid_t processId;
    };

    void run() noexcept;
    bool round() noexcept;
    void wait() noexcept;
    std::vector<pollfd> waitedFor();
    void keepLeases();
    // All below with the lock held.
    void refreshLocked();
    std::exception_ptr collectLocked();
    void acceptConnections();
    void hearNewcomers();
    bool hear(Newcomer& newcomer);
    void admit(Newcomer& newcomer, FileDescriptor counters, const wire::Hello& untrusted);
    void refuse(const Newcomer& newcomer, wire::Outcome outcome);
    void answerList(const Newcomer& newcomer);
    void receiveFrom(ExternalClient& client);
    void giveUp(ExternalClient& client, const std::exception& error);
    void letGoOfGone();
    /// The line that `compose` gives.
    template <class Compose>
    void say(Compose compose) noexcept;

    const std::chrono::milliseconds collectPeriod_;
    const ExternalTerms terms_;
    FileDescriptor wakeUp_;
    ExternalSocket socket_;

    std::mutex lock_;
    std::list<Newcomer> newcomers_;
    Clients clients_;
    ExternalRing::Buffer buffer_;
    std::vector<std::string> lines_;
    std::int64_t leaseUntil_ = 0;
    bool isStarved_ = false;  ///< of descriptors
    bool isClosing_ = false;

    std::thread keeper_;
};

}  // namespace instrument::detail
