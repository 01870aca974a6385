// One external client, as its host has it: the connection, the lease, the rings, the account.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <list>
#include <map>
#include <string>

#include "zandor/client/wire.hpp"
#include "zandor/performance/external_delivery.hpp"
#include "zandor/performance/external_ring.hpp"
#include "zandor/performance/file_descriptor.hpp"

namespace instrument::detail {

/// What a host gives each of its clients.
struct ExternalTerms {
    std::uint32_t ringSlots = 1024;
    std::uint32_t namesBytes = 1 << 16;
    std::uint32_t dataBytes = 1 << 20;
};

/// Memory of the host's that the client reads.
class SharedControl {
  public:
    /// Throws std::system_error.
    SharedControl(std::uint64_t session, std::uint32_t ringSlots);
    ~SharedControl();
    SharedControl(const SharedControl&) = delete;
    SharedControl& operator=(const SharedControl&) = delete;

    int file() const noexcept { return file_.get(); }
    std::uint32_t bytes() const noexcept { return bytes_; }
    void grantUntil(std::int64_t time) noexcept;
    void setHead(std::uint32_t slot, std::uint64_t head) noexcept;
    void release(std::uint32_t slot, std::uint32_t ring) noexcept;

  private:
    wire::RingSlot& slot(std::uint32_t index) const noexcept;

    std::uint32_t bytes_;
    wire::Control* memory_;
    FileDescriptor file_;
};

/// By cause, as exports show it.
using DropTable = std::map<std::string, std::uint64_t>;

struct ClientAccount {
    std::uint64_t published = 0;
    std::uint64_t delivered = 0;
    DropTable drops;
    std::uint64_t dropped() const noexcept;
};

class ExternalClient {
  public:
    /// Throws BrokenRules, std::system_error.
    ExternalClient(FileDescriptor socket, FileDescriptor counters, const wire::Hello& untrusted,
                   pid_t processId, std::uint64_t session, const ExternalTerms& terms);
    ~ExternalClient();
    ExternalClient(const ExternalClient&) = delete;
    ExternalClient& operator=(const ExternalClient&) = delete;

    int socket() const noexcept { return socket_.get(); }
    const std::string& name() const noexcept { return delivery_.name(); }
    std::uint64_t processId() const noexcept { return delivery_.processId(); }
    std::uint64_t session() const noexcept { return session_; }
    std::size_t threads() const noexcept { return rings_.size(); }

    /// Answers its hello.
    void welcome() noexcept;
    /// Takes the rings that the client offered. False where it has to wait for descriptors.
    /// Throws BrokenRules.
    bool receive();
    void grantUntil(std::int64_t time) noexcept { control_.grantUntil(time); }
    /// Has a client that let its lease run out look at it again.
    void wake() noexcept;

    /// Reads what every ring holds at this moment. Throws BrokenRules.
    void collect(ExternalRing::Buffer& buffer);
    std::exception_ptr takeFailure() noexcept { return delivery_.takeFailure(); }

    /// Its process, or its end of the connection, is gone: after one more collect nothing is left.
    bool isGone() const noexcept { return isGone_; }
    /// Ends it: what is not read until now will not be.
    void giveUp();

    ClientAccount account() const;

  private:
    struct Ring {
        std::uint32_t slot;
        std::uint32_t number;
        ExternalRing ring;
        ExternalTimes times;
        std::uint64_t taken = 0;  ///< events
    };

    void takeOffer(const wire::RingOffer& untrusted, FileDescriptor file);
    void collectFrom(Ring& ring, ExternalRing::Buffer& buffer);
    void finish(Ring& ring);
    void addTo(ClientAccount& account, const RingAccount& ring, std::uint64_t taken) const;

    FileDescriptor socket_;
    FileDescriptor counters_;
    std::uint64_t session_;
    ExternalTerms terms_;
    SharedControl control_;
    ExternalDelivery delivery_;
    std::list<Ring> rings_;
    RingAccount finished_;  ///< of rings that are done with
    std::uint64_t finishedTaken_ = 0;
    bool isGone_ = false;
};

}  // namespace instrument::detail
