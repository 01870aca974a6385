#include "zandor/performance/external_client.hpp"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <numeric>
#include <system_error>

#include "zandor/client/packets.hpp"
#include "zandor/client/shared_memory.hpp"
#include "zandor/client/test_point.h"

namespace instrument::detail {

using zandor::client::Receipt;
using zandor::client::receivePacket;
using zandor::client::sendPacket;

namespace {

std::string nameOf(const wire::Hello& untrusted) {
    return {untrusted.name, strnlen(untrusted.name, sizeof untrusted.name)};
}

}  // namespace

SharedControl::SharedControl(std::uint64_t session, std::uint32_t ringSlots)
    : bytes_(
          static_cast<std::uint32_t>(sizeof(wire::Control) + ringSlots * sizeof(wire::RingSlot))) {
    const auto shared = zandor::client::makeShared("zandor-control", bytes_);
    if (!shared.mapping)
        throw std::system_error(errno, std::generic_category(), "external events: shared memory");
    file_ = FileDescriptor(shared.descriptor);
    memory_ = shared.mapping.as<wire::Control>();
    memory_->magic = wire::magic;
    memory_->session = session;
}

SharedControl::~SharedControl() {
    munmap(memory_, bytes_);
}

wire::RingSlot& SharedControl::slot(std::uint32_t index) const noexcept {
    return reinterpret_cast<wire::RingSlot*>(memory_ + 1)[index];
}

void SharedControl::grantUntil(std::int64_t time) noexcept {
    // Pairs with the acquire in the client's readShared.
    std::atomic_ref(memory_->leaseUntil).store(time, std::memory_order_release);
}

void SharedControl::setHead(std::uint32_t index, std::uint64_t head) noexcept {
    // Pairs with the acquire in the client's readShared: the room was read before it is free.
    std::atomic_ref(slot(index).head).store(head, std::memory_order_release);
}

void SharedControl::release(std::uint32_t index, std::uint32_t ring) noexcept {
    setHead(index, 0);
    // Pairs with the acquire in the client's readShared: its next ring there finds the head at 0.
    std::atomic_ref(slot(index).released).store(ring, std::memory_order_release);
}

std::uint64_t ClientAccount::dropped() const noexcept {
    return std::accumulate(drops.begin(), drops.end(), std::uint64_t{0},
                           [](std::uint64_t sum, const auto& drop) { return sum + drop.second; });
}

ExternalClient::ExternalClient(FileDescriptor socket, FileDescriptor counters,
                               const wire::Hello& untrusted, pid_t processId, std::uint64_t session,
                               const ExternalTerms& terms)
    : socket_(std::move(socket)),
      counters_(std::move(counters)),
      session_(session),
      terms_(terms),
      control_(session, terms.ringSlots),
      delivery_(nameOf(untrusted), static_cast<std::uint64_t>(processId)) {
    checkSealed(counters_.get(), sizeof(wire::Counters));
}

ExternalClient::~ExternalClient() {
    // Closing alone would not end it while another thread polls it.
    shutdown(socket_.get(), SHUT_RDWR);
}

void ExternalClient::welcome() noexcept {
    const wire::Welcome welcome{
        wire::magic,       wire::version,    static_cast<std::uint32_t>(wire::Outcome::welcome),
        session_,          control_.bytes(), terms_.ringSlots,
        terms_.namesBytes, terms_.dataBytes};
    sendPacket(socket_.get(), &welcome, sizeof welcome, control_.file());
}

void ExternalClient::wake() noexcept {
    const wire::Renewal renewal{wire::magic, session_};
    sendPacket(socket_.get(), &renewal, sizeof renewal, -1);
}

bool ExternalClient::receive() {
    while (!isGone_) {
        // One that comes when there is none left would be lost.
        if (!areFilesLeft(socket_.get(), 1))
            return false;
        wire::RingOffer untrusted{};
        int file = -1;
        const Receipt receipt = receivePacket(socket_.get(), &untrusted, sizeof untrusted, file);
        FileDescriptor owned(file);
        if (receipt == Receipt::nothing)
            return true;
        if (receipt == Receipt::end)
            isGone_ = true;
        else
            takeOffer(untrusted, std::move(owned));
    }
    return true;
}

void ExternalClient::takeOffer(const wire::RingOffer& untrusted, FileDescriptor file) {
    ZANDOR_TEST_POINT("host.ring.offered");
    if (untrusted.magic != wire::magic || untrusted.session != session_ || !file)
        throw BrokenRules("an offer that is none");
    if (untrusted.slot >= terms_.ringSlots || untrusted.ring == 0)
        throw BrokenRules("a ring in no slot");
    for (const Ring& ring : rings_)
        if (ring.slot == untrusted.slot)
            throw BrokenRules("two rings in one slot");
    ExternalRing ring(std::move(file),
                      {session_, untrusted.ring, terms_.namesBytes, terms_.dataBytes});
    ExternalTimes times(ring.clock());
    control_.setHead(untrusted.slot, 0);
    delivery_.begin(ring);
    rings_.push_back({untrusted.slot, untrusted.ring, std::move(ring), std::move(times)});
}

void ExternalClient::collect(ExternalRing::Buffer& buffer) {
    for (auto ring = rings_.begin(); ring != rings_.end();) {
        collectFrom(*ring, buffer);
        const bool isOver = isGone_ || ring->ring.isDone();
        const auto place = ring++;
        if (isOver) {
            finish(*place);
            rings_.erase(place);
        }
    }
    delivery_.finishRound();
    if (isGone_)
        delivery_.finishRound();  // there will be no other
}

void ExternalClient::giveUp() {
    isGone_ = true;
    control_.grantUntil(0);
    for (Ring& ring : rings_)
        finish(ring);
    rings_.clear();
}

void ExternalClient::collectFrom(Ring& ring, ExternalRing::Buffer& buffer) {
    // Not for ever, where a thread writes faster than it can be read.
    const std::uint64_t end = ring.ring.head() + terms_.dataBytes;
    RingEvent event;
    while (ring.ring.head() < end && ring.ring.fetch(buffer)) {
        const std::uint64_t before = ring.ring.head();
        ring.times.takeNow();
        while (ring.ring.next(buffer, event)) {
            delivery_.deliver(ring.ring, ring.times, event);
            ++ring.taken;
        }
        control_.setHead(ring.slot, ring.ring.head());
        ZANDOR_TEST_POINT("host.ring.head");
        if (ring.ring.head() == before)
            break;
    }
}

void ExternalClient::finish(Ring& ring) {
    const RingAccount& account = ring.ring.account();
    finished_.written += account.written;
    finishedTaken_ += ring.taken;
    for (std::size_t cause = 0; cause < wire::dropCauses; ++cause)
        finished_.drops[cause] += account.drops[cause];
    delivery_.end(ring.ring);
    control_.release(ring.slot, ring.number);
}

void ExternalClient::addTo(ClientAccount& account, const RingAccount& ring,
                           std::uint64_t taken) const {
    // A client that died between the two has not counted the last one that it wrote.
    account.published += std::max(ring.written, taken);
    if (ring.written > taken)
        account.drops["unread"] += ring.written - taken;
    for (std::size_t cause = 0; cause < wire::dropCauses; ++cause) {
        account.published += ring.drops[cause];
        account.drops[wire::dropNames[cause]] += ring.drops[cause];
    }
}

ClientAccount ExternalClient::account() const {
    ClientAccount account;
    addTo(account, finished_, finishedTaken_);
    for (const Ring& ring : rings_)
        addTo(account, ring.ring.account(), ring.taken);
    wire::Counters untrusted{};
    if (pread(counters_.get(), &untrusted, sizeof untrusted, 0) == sizeof untrusted) {
        RingAccount withoutRing;
        std::memcpy(withoutRing.drops.data(), untrusted.drops, sizeof untrusted.drops);
        addTo(account, withoutRing, 0);
    }
    const DeliveryAccount& read = delivery_.account();
    account.delivered = read.delivered;
    account.drops["disabled"] = read.disabled;
    account.drops["unheard"] = read.unheard;
    account.drops["unmatched"] = read.unmatched;
    std::erase_if(account.drops, [](const auto& drop) { return drop.second == 0; });
    return account;
}

}  // namespace instrument::detail
