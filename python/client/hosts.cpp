#include "hosts.hpp"

#include <dirent.h>
#include <poll.h>

#include <memory>
#include <optional>

#include "zandor/client/packets.hpp"
#include "zandor/client/runtime_folder.hpp"

namespace vantrace {

namespace wire = zandor::client::wire;
using zandor::client::Receipt;

namespace {

constexpr int answerMilliseconds = 1000;

class Connection {
  public:
    Connection(int folder, const char* host)
        : socket_(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
        const sockaddr_un address = zandor::client::addressIn(folder, host);
        isGood_ =
            connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    }
    ~Connection() { close(socket_); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    std::optional<HostReport> ask() const {
        const wire::Hello hello{wire::magic,
                                wire::version,
                                static_cast<std::uint32_t>(wire::Request::list),
                                sizeof(wire::RingHeader),
                                sizeof(wire::Record),
                                sizeof(wire::Counters),
                                0,
                                {}};
        if (!isGood_ || !zandor::client::isOwnUser(socket_) ||
            !zandor::client::sendPacket(socket_, &hello, sizeof hello, -1))
            return {};
        return answer();
    }

  private:
    std::optional<HostReport> answer() const {
        HostReport report;
        report.processId = processId();
        wire::ClientReport client{};
        while (receive(client)) {
            if (client.processId == 0)
                return report;
            client.name[sizeof client.name - 1] = '\0';
            report.clients.push_back(client);
        }
        return {};
    }
    bool receive(wire::ClientReport& client) const {
        pollfd file{socket_, POLLIN, 0};
        if (poll(&file, 1, answerMilliseconds) <= 0)
            return false;
        int none = -1;
        const Receipt receipt =
            zandor::client::receivePacket(socket_, &client, sizeof client, none);
        if (none >= 0)
            close(none);
        return receipt == Receipt::packet && client.magic == wire::magic;
    }
    std::uint64_t processId() const {
        ucred who{};
        socklen_t bytes = sizeof who;
        getsockopt(socket_, SOL_SOCKET, SO_PEERCRED, &who, &bytes);
        return static_cast<std::uint64_t>(who.pid);
    }

    int socket_;
    bool isGood_ = false;
};

struct CloseFolder {
    void operator()(DIR* folder) const noexcept { closedir(folder); }
};

}  // namespace

std::vector<HostReport> askHosts() {
    const int file = zandor::client::openRuntimeFolder(zandor::client::runtimeFolders());
    const std::unique_ptr<DIR, CloseFolder> folder(file < 0 ? nullptr : fdopendir(file));
    std::vector<HostReport> reports;
    while (const dirent* entry = folder ? readdir(folder.get()) : nullptr) {
        if (!std::string_view(entry->d_name).starts_with(zandor::client::hostPrefix))
            continue;
        if (auto report = Connection(file, entry->d_name).ask())
            reports.push_back(std::move(*report));
    }
    return reports;
}

}  // namespace vantrace
