#include "zandor/performance/external_ring.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <string>

#include "zandor/client/test_point.h"
#include "zandor/instrument/controls.hpp"
#include "zandor/instrument/kept_context.hpp"

namespace instrument::detail {

namespace {

constexpr std::size_t batchBytes = 1 << 18;
/// A number that the kernel copies while it is written may be read wrong, but not again and again.
constexpr int mostOddReadings = 8;

template <class T>
T copyUntrusted(const char* from) {
    T value;
    std::memcpy(&value, from, sizeof value);
    return value;
}

std::string textOf(const char (&untrusted)[wire::nameBytes]) {
    return {untrusted, strnlen(untrusted, sizeof untrusted)};
}

}  // namespace

void checkSealed(int file, std::uint64_t bytes) {
    struct stat status;
    const int seals = fcntl(file, F_GET_SEALS);
    if (seals < 0 || !(seals & F_SEAL_SHRINK))
        throw BrokenRules("memory without seals");
    if (fstat(file, &status) != 0 || static_cast<std::uint64_t>(status.st_size) != bytes)
        throw BrokenRules("memory of another size");
}

ExternalRing::ExternalRing(FileDescriptor file, const RingTerms& terms)
    : file_(std::move(file)), terms_(terms) {
    checkSealed(file_.get(), wire::ringBytes(terms.namesBytes, terms.dataBytes));
    const wire::RingHeader untrusted = readHeader();
    if (untrusted.magic != wire::magic || untrusted.version != wire::version ||
        untrusted.session != terms.session || untrusted.ring != terms.ring ||
        untrusted.namesBytes != terms.namesBytes || untrusted.dataBytes != terms.dataBytes)
        throw BrokenRules("a ring that is not as agreed");
    if (untrusted.clock > static_cast<std::uint32_t>(wire::Clock::tsc))
        throw BrokenRules("an unknown clock");
    if (untrusted.thread == 0)
        throw BrokenRules("a thread without number");
    clock_ = static_cast<wire::Clock>(untrusted.clock);
    thread_ = untrusted.thread;
    threadId_ = untrusted.threadId;
    threadName_ = textOf(untrusted.threadName);
}

wire::RingHeader ExternalRing::readHeader() const {
    wire::RingHeader untrusted;
    read(&untrusted, sizeof untrusted, 0);
    return untrusted;
}

void ExternalRing::read(void* to, std::size_t bytes, std::uint64_t offset) const {
    ssize_t got = 0;
    do {
        got = pread(file_.get(), to, bytes, static_cast<off_t>(offset));
    } while (got < 0 && errno == EINTR);
    if (got != static_cast<ssize_t>(bytes))
        throw BrokenRules("memory that cannot be read");
}

void ExternalRing::takeHeader(const wire::RingHeader& untrusted) {
    const bool isInRange = untrusted.tail % 8 == 0 && untrusted.tail >= head_ &&
                           untrusted.tail - head_ <= terms_.dataBytes;
    if (!isInRange) {
        if (++oddReadings_ > mostOddReadings)
            throw BrokenRules("an end outside of the ring");
        return;
    }
    tail_ = untrusted.tail;
    account_.written = untrusted.written;
    std::copy_n(untrusted.drops, wire::dropCauses, account_.drops.begin());
    hasEnded_ = untrusted.ended != 0;
}

bool ExternalRing::fetch(Buffer& buffer) {
    takeHeader(readHeader());
    ZANDOR_TEST_POINT("host.ring.header");
    const std::uint64_t round = head_ & (terms_.dataBytes - 1);
    const std::uint64_t bytes =
        std::min({tail_ - head_, terms_.dataBytes - round, std::uint64_t{batchBytes}});
    if (bytes == 0)
        return false;
    buffer.resize(std::max(buffer.size(), batchBytes));
    read(buffer.data(), bytes, wire::dataOffset(terms_.namesBytes) + round);
    ZANDOR_TEST_POINT("host.ring.copied");
    fetched_ = head_;
    fetchedBytes_ = bytes;
    return true;
}

/// A stamp that is not there yet is where the tail was read wrong.
bool ExternalRing::isStampRight(std::uint32_t untrustedStamp) {
    if (untrustedStamp == wire::stampOf(head_)) {
        oddReadings_ = 0;
        return true;
    }
    if (++oddReadings_ > mostOddReadings)
        throw BrokenRules("a record without its stamp");
    return false;
}

bool ExternalRing::next(const Buffer& buffer, RingEvent& event) {
    while (true) {
        const std::uint64_t at = head_ - fetched_;
        const std::uint64_t left = fetchedBytes_ - at;
        if (left < sizeof(std::uint64_t))
            return false;
        const char* const place = buffer.data() + at;
        const auto word = copyUntrusted<std::uint64_t>(place);
        if (!isStampRight(static_cast<std::uint32_t>(word >> 32)))
            return false;
        const auto bytes = static_cast<std::uint32_t>(word);
        if (bytes & wire::paddingBit) {
            const std::uint64_t untilEnd = terms_.dataBytes - (head_ & (terms_.dataBytes - 1));
            if ((bytes & ~wire::paddingBit) != untilEnd || untilEnd > tail_ - head_)
                throw BrokenRules("padding of a wrong length");
            // The rest of the round may be longer than what was fetched.
            head_ += untilEnd;
            fetchedBytes_ = 0;
            fetched_ = head_;
            return false;
        }
        if (bytes < sizeof(wire::Record) || bytes % 8 != 0 || bytes > tail_ - head_)
            throw BrokenRules("a record of a wrong length");
        if (bytes > left) {
            if (at == 0)
                throw BrokenRules("a record that is too long");
            return false;  // it comes whole with what is fetched next
        }
        const auto untrusted = copyUntrusted<wire::Record>(place);
        event.ticks = untrusted.ticks;
        event.serial = untrusted.serial;
        event.instrument = nullptr;
        event.thread = 0;
        event.context = {};
        switch (static_cast<wire::RecordKind>(untrusted.kind)) {
            case wire::RecordKind::stop:
                event.thread = untrusted.reference;
                break;
            case wire::RecordKind::start:
            case wire::RecordKind::instant:
                event.instrument = instrumentAt(untrusted.reference);
                takeContext(place, untrusted);
                event.context = {entries_.data(), untrusted.entries};
                break;
            default:
                throw BrokenRules("a record of an unknown kind");
        }
        event.kind = static_cast<wire::RecordKind>(untrusted.kind);
        head_ += bytes;
        return true;
    }
}

void ExternalRing::takeContext(const char* place, const wire::Record& untrusted) {
    if (untrusted.entries > wire::mostEntries)
        throw BrokenRules("too many context entries");
    const char* at = place + sizeof(wire::Record);
    const char* const end = place + untrusted.bytes;
    for (std::size_t i = 0; i < untrusted.entries; ++i) {
        if (end - at < static_cast<std::ptrdiff_t>(sizeof(wire::EntryHead)))
            throw BrokenRules("a context beyond its record");
        const auto head = copyUntrusted<wire::EntryHead>(at);
        at += sizeof head;
        if (head.length > static_cast<std::size_t>(end - at))
            throw BrokenRules("a context value beyond its record");
        entries_[i] = {keyAt(head.key), {at, head.length}};
        at += head.length;
    }
}

ExternalRing::Name& ExternalRing::knownName(std::uint32_t untrustedOffset) {
    if (untrustedOffset % 8 != 0 || untrustedOffset >= terms_.namesBytes)
        throw BrokenRules("a name outside of the names");
    const std::size_t place = untrustedOffset / 8;
    if (place >= names_.size())
        names_.resize(place + 1);
    return names_[place];
}

std::string_view ExternalRing::nameAt(std::uint32_t untrustedOffset) {
    const std::uint64_t bytes = terms_.namesBytes - untrustedOffset;
    nameBuffer_.resize(std::min<std::size_t>(bytes, sizeof(wire::NameHead) + wire::longestName));
    read(nameBuffer_.data(), nameBuffer_.size(), wire::namesOffset + untrustedOffset);
    const auto head = copyUntrusted<wire::NameHead>(nameBuffer_.data());
    if (head.length > nameBuffer_.size() - sizeof head)
        throw BrokenRules("a name that is too long");
    const std::string_view name(nameBuffer_.data() + sizeof head, head.length);
    if (name.find('\0') != std::string_view::npos)
        throw BrokenRules("a name with a NUL");
    return name;
}

const Opaque* ExternalRing::instrumentAt(std::uint32_t untrustedOffset) {
    Name& known = knownName(untrustedOffset);
    if (!known.instrument)
        known.instrument = controls.getHandle(nameAt(untrustedOffset));
    return known.instrument;
}

std::string_view ExternalRing::keyAt(std::uint32_t untrustedOffset) {
    Name& known = knownName(untrustedOffset);
    if (known.key.data())
        return known.key;
    const std::string_view text = nameAt(untrustedOffset);
    const std::string_view kept = lastingText(text);
    if (kept.data() == text.data())
        throw std::bad_alloc();
    return known.key = kept;
}

}  // namespace instrument::detail
