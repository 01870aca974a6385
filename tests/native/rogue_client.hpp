// Clients that keep to no rules.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>

#include "client_support.hpp"
#include "zandor/client/packets.hpp"
#include "zandor/client/runtime_folder.hpp"
#include "zandor/client/wire.hpp"

namespace client_tests {

namespace wire = zandor::client::wire;

/// Speaks to a host by the bytes alone.
class RogueClient {
  public:
    explicit RogueClient(const RuntimeFolder& folder) : folder_(folder) { connect(); }
    ~RogueClient() { close(socket_); }
    RogueClient(const RogueClient&) = delete;
    RogueClient& operator=(const RogueClient&) = delete;

    bool isConnected() const { return isConnected_; }

    wire::Hello goodHello() const {
        wire::Hello hello{wire::magic,
                          wire::version,
                          static_cast<std::uint32_t>(wire::Request::join),
                          sizeof(wire::RingHeader),
                          sizeof(wire::Record),
                          sizeof(wire::Counters),
                          0,
                          "rogue"};
        return hello;
    }
    /// The host's answer to it.
    wire::Welcome greet(const wire::Hello& hello, int counters) {
        send(&hello, sizeof hello, counters);
        wire::Welcome welcome{};
        welcome.outcome = UINT32_MAX;
        waitUntil([&] { return receive(welcome) != zandor::client::Receipt::nothing; });
        return welcome;
    }
    /// Becomes a client by the rules.
    void join() {
        const int counters = memory(sizeof(wire::Counters), F_SEAL_SHRINK | F_SEAL_GROW);
        welcome_ = greet(goodHello(), counters);
        close(counters);
    }
    const wire::Welcome& welcome() const { return welcome_; }

    /// A ring whose header is good; its bytes can be set until it is offered, and after.
    int makeRing(int seals = F_SEAL_SHRINK | F_SEAL_GROW) {
        const std::uint64_t bytes = wire::ringBytes(welcome_.namesBytes, welcome_.dataBytes);
        const int file = memory(bytes, 0);
        header_ = static_cast<wire::RingHeader*>(
            mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0));
        header_->magic = wire::magic;
        header_->version = wire::version;
        header_->session = welcome_.session;
        header_->ring = 1;
        header_->thread = 1;
        header_->namesBytes = welcome_.namesBytes;
        header_->dataBytes = welcome_.dataBytes;
        std::strcpy(header_->threadName, "rogue thread");
        fcntl(file, F_ADD_SEALS, seals);
        return file;
    }
    wire::RingHeader& header() const { return *header_; }
    char* names() const { return reinterpret_cast<char*>(header_) + wire::namesOffset; }
    char* data() const {
        return reinterpret_cast<char*>(header_) + wire::dataOffset(welcome_.namesBytes);
    }
    bool offer(int ring, std::uint32_t slot = 0) {
        const wire::RingOffer offer{wire::magic, welcome_.session, slot, 1};
        return send(&offer, sizeof offer, ring);
    }
    void putName(std::uint32_t offset, const std::string& name) const {
        const wire::NameHead head{static_cast<std::uint32_t>(name.size()), 0};
        std::memcpy(names() + offset, &head, sizeof head);
        std::memcpy(names() + offset + sizeof head, name.data(), name.size());
    }
    void put(const wire::Record& record, std::uint64_t position = 0) const {
        wire::Record stamped = record;
        stamped.stamp = wire::stampOf(position);
        std::memcpy(data() + position, &stamped, sizeof stamped);
        header_->written++;
        header_->tail = position + record.bytes;
    }
    /// Whether the host has left.
    bool isAlone() const {
        wire::Renewal word{};
        ssize_t got = 0;
        do {
            got = recv(socket_, &word, sizeof word, MSG_DONTWAIT);
        } while (got > 0);
        return got == 0 || errno == ECONNRESET;
    }
    bool send(const void* bytes, std::size_t count, int file) const {
        return zandor::client::sendPacket(socket_, bytes, count, file);
    }

    static int memory(std::uint64_t bytes, int seals) {
        const int file = memfd_create("rogue", MFD_CLOEXEC | MFD_ALLOW_SEALING);
        EXPECT_EQ(ftruncate(file, static_cast<off_t>(bytes)), 0);
        fcntl(file, F_ADD_SEALS, seals);
        return file;
    }

  private:
    void connect() {
        const int folder = open(folder_.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        for (const auto& entry : std::filesystem::directory_iterator(folder_.path())) {
            const std::string name = entry.path().filename();
            if (!name.starts_with(zandor::client::hostPrefix))
                continue;
            const sockaddr_un address = zandor::client::addressIn(folder, name.c_str());
            isConnected_ = ::connect(socket_, reinterpret_cast<const sockaddr*>(&address),
                                     sizeof address) == 0;
        }
        close(folder);
    }
    zandor::client::Receipt receive(wire::Welcome& welcome) const {
        int file = -1;
        const auto receipt = zandor::client::receivePacket(socket_, &welcome, sizeof welcome, file);
        if (file >= 0)
            close(file);
        return receipt;
    }

    const RuntimeFolder& folder_;
    int socket_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    bool isConnected_ = false;
    wire::Welcome welcome_{};
    wire::RingHeader* header_ = nullptr;
};

}  // namespace client_tests
