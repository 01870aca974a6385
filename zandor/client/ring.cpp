#include "ring.hpp"

#include <string.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "session.hpp"
#include "zandor/client/packets.hpp"
#include "zandor/client/test_point.h"

namespace zandor::client {

namespace {

std::uint32_t thisThreadId() noexcept {
    return static_cast<std::uint32_t>(syscall(SYS_gettid));
}

char* putBytes(char* to, const void* from, std::size_t count) noexcept {
    memcpy(to, from, count);
    return to + count;
}

}  // namespace

bool Ring::open(Session& session, std::uint32_t thread, const char* threadName) noexcept {
    constexpr std::uint32_t mostSkipped = 1 << 16;
    const std::uint64_t epoch = session.epoch.load();
    if (epoch_ != epoch)
        toSkip_ = skipped_ = 0;
    epoch_ = epoch;
    if (skipped_ < toSkip_) {
        ++skipped_;
        session.count(failure_);
        return false;
    }
    if (make(session, thread, threadName, failure_))
        return true;
    session.count(failure_);
    skipped_ = 0;
    toSkip_ = toSkip_ == 0 ? 1 : toSkip_ < mostSkipped ? 2 * toSkip_ : mostSkipped;
    return false;
}

bool Ring::make(Session& session, std::uint32_t thread, const char* threadName,
                wire::Drop& cause) noexcept {
    std::uint32_t number = 0;
    cause = wire::Drop::rings;
    if (!session.takeSlot(slot_, number))
        return false;
    cause = wire::Drop::memory;
    const SharedMemory shared =
        makeShared("zandor-ring", wire::ringBytes(session.namesBytes, session.dataBytes));
    ZANDOR_TEST_POINT("client.ring.made");
    char* const names = shared.mapping.as<char>() + wire::namesOffset;
    auto* const head = shared.mapping.as<wire::RingHeader>();
    if (shared.mapping && names_.open(names, session.namesBytes, &head->namesEnd)) {
        memory_ = shared.mapping;
        head->ring = number;
        describe(session, thread, threadName);
        cause = wire::Drop::rings;
    }
    const bool isOffered = memory_ && offer(session, shared.descriptor);
    if (shared.descriptor >= 0)
        ::close(shared.descriptor);
    if (isOffered)
        return true;
    names_.close();
    Mapping mapping = shared.mapping;
    memory_ = {};
    unmap(mapping);
    session.giveBackSlot(slot_);
    return false;
}

void Ring::describe(Session& session, std::uint32_t thread, const char* threadName) noexcept {
    wire::RingHeader& shared = header();
    shared.magic = wire::magic;
    shared.version = wire::version;
    shared.clock = static_cast<std::uint32_t>(session.clock);
    shared.session = session.hostsNumber;
    shared.thread = thread;
    shared.threadId = thisThreadId();
    shared.namesBytes = session.namesBytes;
    shared.dataBytes = session.dataBytes;
    if (*threadName)
        strncpy(shared.threadName, threadName, sizeof shared.threadName - 1);
    else
        prctl(PR_GET_NAME, shared.threadName, 0, 0, 0);
    data_ = memory_.as<char>() + wire::dataOffset(session.namesBytes);
    mask_ = session.dataBytes - 1;
    tail_ = written_ = 0;
    limit_ = session.dataBytes;
    keptForStops_ = session.dataBytes / 8;
    session_ = &session;
}

/// The host has the ring from here on, whatever becomes of this process.
bool Ring::offer(Session& session, int descriptor) noexcept {
    const wire::RingOffer offer{wire::magic, session.hostsNumber, slot_, header().ring};
    const bool isSent = sendPacket(session.socket, &offer, sizeof offer, descriptor);
    ZANDOR_TEST_POINT("client.ring.offered");
    return isSent;
}

void Ring::close() noexcept {
    if (!memory_)
        return;
    // Release pairs with the reader's copy: whoever sees it sees the last tail.
    std::atomic_ref(header().ended).store(1, std::memory_order_release);
    ZANDOR_TEST_POINT("client.ring.ended");
    unmap(memory_);
    names_.close();
}

bool Ring::drop(wire::Drop cause) noexcept {
    // Handlers that interrupt each other on this thread count here, too; relaxed, since it only
    // counts.
    std::atomic_ref(header().drops[static_cast<std::size_t>(cause)])
        .fetch_add(1, std::memory_order_relaxed);
    return false;
}

bool Ring::measure(const Context& context, Sizes& sizes, wire::Drop& cause) noexcept {
    cause = wire::Drop::oversize;
    if (context.count > wire::mostEntries || !context.keys || !context.values)
        return false;
    std::uint64_t bytes = 0;
    for (std::size_t i = 0; i < context.count; ++i) {
        const char* const value = context.values[i] ? context.values[i] : "";
        sizes.values[i] = static_cast<std::uint32_t>(strnlen(value, wire::longestContext + 1));
        bytes += sizes.values[i];
        if (bytes > wire::longestContext || !context.keys[i])
            return false;
        if (!names_.find(context.keys[i], sizes.keys[i], cause))
            return false;
    }
    sizes.bytes =
        wire::upToEight(sizeof(wire::Record) + context.count * sizeof(wire::EntryHead) + bytes);
    return true;
}

bool Ring::putWithContext(wire::RecordKind kind, std::uint32_t name, const Context& context,
                          std::uint64_t serial, std::uint64_t ticks) noexcept {
    Sizes sizes;
    wire::Drop cause{};
    if (!measure(context, sizes, cause))
        return drop(cause);
    char* const place = reserve(sizes.bytes, keptForStops_);
    if (!place)
        return drop(wire::Drop::full);
    char* to = place + sizeof(wire::Record);
    for (std::size_t i = 0; i < context.count; ++i) {
        const wire::EntryHead head{sizes.keys[i], sizes.values[i]};
        to = putBytes(to, &head, sizeof head);
        if (head.length != 0)
            to = putBytes(to, context.values[i], head.length);
    }
    ZANDOR_TEST_POINT("client.record.context");
    commit(place, {static_cast<std::uint32_t>(sizes.bytes), 0, ticks, serial, name,
                   static_cast<std::uint16_t>(kind), static_cast<std::uint16_t>(context.count)});
    return true;
}

char* Ring::reserveSlowly(std::uint64_t bytes, std::uint64_t left) noexcept {
    const std::uint64_t size = mask_ + 1;
    const std::uint64_t untilEnd = size - (tail_ & mask_);
    const std::uint64_t padding = untilEnd < bytes ? untilEnd : 0;
    if (!hasRoom(padding + bytes + left))
        return nullptr;
    if (padding)
        pad(padding);
    return data_ + (tail_ & mask_);
}

/// Asks the host's word where the known one is not enough.
bool Ring::hasRoom(std::uint64_t bytes) noexcept {
    if (tail_ + bytes <= limit_)
        return true;
    const SessionUse use(*session_, epoch_);
    if (!use)
        return false;
    const std::uint64_t head = readShared(session_->slot(slot_).head);
    if (head > tail_ || tail_ - head > mask_ + 1)
        return false;  // the host's word cannot be
    limit_ = head + mask_ + 1;
    return tail_ + bytes <= limit_;
}

void Ring::pad(std::uint64_t bytes) noexcept {
    stamp(data_ + (tail_ & mask_), static_cast<std::uint32_t>(bytes) | wire::paddingBit, tail_);
    tail_ += bytes;
    ZANDOR_TEST_POINT("client.ring.padded");
}

}  // namespace zandor::client
