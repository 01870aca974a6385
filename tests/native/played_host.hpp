// A host that a test plays: it says to its client whatever the test likes.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mman.h>

#include <climits>

#include "client_support.hpp"
#include "zandor/client/packets.hpp"
#include "zandor/client/wire.hpp"
#include "zandor/performance/external_client.hpp"
#include "zandor/performance/external_socket.hpp"

namespace client_tests {

namespace wire = zandor::client::wire;

class PlayedHost {
  public:
    explicit PlayedHost(std::uint32_t ringSlots = 8) : control_(session, ringSlots) {
        terms_ = {ringSlots, wire::minNamesBytes, wire::minDataBytes};
    }
    ~PlayedHost() {
        if (counters_)
            munmap(counters_, sizeof(wire::Counters));
    }
    PlayedHost(const PlayedHost&) = delete;
    PlayedHost& operator=(const PlayedHost&) = delete;

    /// Waits for a client, and for its hello.
    void hearHello() {
        waitFor(socket_.get());
        client_ = socket_.accept();
        ASSERT_TRUE(client_);
        wire::Hello hello{};
        const instrument::detail::FileDescriptor file = receive(hello);
        void* const counters =
            mmap(nullptr, sizeof(wire::Counters), PROT_READ, MAP_SHARED, file.get(), 0);
        ASSERT_NE(counters, MAP_FAILED);
        counters_ = static_cast<wire::Counters*>(counters);
    }
    wire::Welcome goodWelcome() const {
        return {
            wire::magic,       wire::version,    static_cast<std::uint32_t>(wire::Outcome::welcome),
            session,           control_.bytes(), terms_.ringSlots,
            terms_.namesBytes, terms_.dataBytes};
    }
    void welcome(const wire::Welcome& welcome, int control) const {
        ASSERT_TRUE(zandor::client::sendPacket(client_.get(), &welcome, sizeof welcome, control));
    }
    /// Becomes the client's host by the rules, that wants events until further notice.
    void admit() {
        hearHello();
        control_.grantUntil(INT64_MAX);
        welcome(goodWelcome(), control_.file());
    }
    /// Waits for the client's next ring.
    wire::RingOffer takeRing() {
        wire::RingOffer offer{};
        ring_ = receive(offer);
        return offer;
    }
    /// Of the ring that came last.
    wire::RingHeader ringHeader() const {
        wire::RingHeader header{};
        EXPECT_EQ(pread(ring_.get(), &header, sizeof header, 0),
                  static_cast<ssize_t>(sizeof header));
        return header;
    }
    std::uint64_t dropsWithoutRing(wire::Drop cause) const {
        return counters_->drops[static_cast<std::size_t>(cause)];
    }
    /// Waits until the client has left.
    void waitUntilAlone() const {
        waitFor(client_.get());
        char word = 0;
        EXPECT_EQ(recv(client_.get(), &word, sizeof word, 0), 0);
    }
    /// Whether a client says hello; other hosts come to see whether this one lives.
    bool hasHello() const {
        char word = 0;
        while (const auto came = socket_.accept())
            if (recv(came.get(), &word, sizeof word, MSG_DONTWAIT) > 0)
                return true;
        return false;
    }
    instrument::detail::SharedControl& control() { return control_; }

  private:
    static constexpr std::uint64_t session = 1;

    static void waitFor(int file) {
        pollfd waited{file, POLLIN, 0};
        ASSERT_EQ(poll(&waited, 1, 30'000), 1);
    }
    template <class Packet>
    instrument::detail::FileDescriptor receive(Packet& packet) const {
        waitFor(client_.get());
        int file = -1;
        EXPECT_EQ(zandor::client::receivePacket(client_.get(), &packet, sizeof packet, file),
                  zandor::client::Receipt::packet);
        return instrument::detail::FileDescriptor(file);
    }

    instrument::detail::ExternalSocket socket_;
    instrument::detail::SharedControl control_;
    instrument::detail::ExternalTerms terms_;
    instrument::detail::FileDescriptor client_;
    instrument::detail::FileDescriptor ring_;
    wire::Counters* counters_ = nullptr;
};

}  // namespace client_tests
