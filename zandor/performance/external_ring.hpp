// Reads one ring of an external client.
//
// Nothing in it is believed: it is copied by pread, so that no change to the file is a signal, and
// every number and text is checked after that one copy. What cannot be is a BrokenRules.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "zandor/client/wire.hpp"
#include "zandor/instrument/control_element.hpp"
#include "zandor/performance/export.hpp"
#include "zandor/performance/file_descriptor.hpp"

namespace instrument::detail {

namespace wire = zandor::client::wire;

/// A client did what the rules do not allow; says what.
class ZANDOR_PERFORMANCE_API BrokenRules : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// The file is sealed against shrinking and has that size; throws BrokenRules.
void checkSealed(int file, std::uint64_t bytes);

/// A context entry; the value is gone with the batch, the key stays.
struct RingEntry {
    std::string_view key;
    std::string_view value;
};

/// A checked record.
struct RingEvent {
    wire::RecordKind kind = wire::RecordKind::instant;
    std::uint64_t ticks = 0;
    std::uint64_t serial = 0;
    const Opaque* instrument = nullptr;  ///< none for a stop
    std::uint32_t thread = 0;            ///< of a stop: the one that the event started on
    std::span<const RingEntry> context;
};

/// What the ring says of itself.
struct RingAccount {
    std::uint64_t written = 0;
    std::array<std::uint64_t, wire::dropCauses> drops{};
};

/// What the host and the client agreed on.
struct RingTerms {
    std::uint64_t session = 0;
    std::uint32_t ring = 0;
    std::uint32_t namesBytes = 0;
    std::uint32_t dataBytes = 0;
};

class ZANDOR_PERFORMANCE_API ExternalRing {
  public:
    using Buffer = std::vector<char>;

    /// Throws BrokenRules where the file is not such a ring.
    ExternalRing(FileDescriptor file, const RingTerms& terms);

    /// The client's number and the kernel's for the thread, and its name.
    std::uint32_t thread() const noexcept { return thread_; }
    std::uint32_t threadId() const noexcept { return threadId_; }
    std::string_view threadName() const noexcept { return threadName_; }
    wire::Clock clock() const noexcept { return clock_; }

    /// Copies what there is to read next, of which `buffer` then holds the most recent; false where
    /// there is nothing. Throws BrokenRules.
    bool fetch(Buffer& buffer);
    /// The next event of what was fetched; false at its end. Throws BrokenRules.
    bool next(const Buffer& buffer, RingEvent& event);

    /// How far it was read, once `next` came to the end: what lies before may be written over.
    std::uint64_t head() const noexcept { return head_; }
    /// Whether the client will write no more, and everything was read.
    bool isDone() const noexcept { return hasEnded_ && head_ == tail_; }
    const RingAccount& account() const noexcept { return account_; }

  private:
    wire::RingHeader readHeader() const;
    void takeHeader(const wire::RingHeader& untrusted);
    void read(void* to, std::size_t bytes, std::uint64_t offset) const;
    bool isStampRight(std::uint32_t untrustedStamp);
    void takeContext(const char* place, const wire::Record& untrusted);
    /// Reads a name the first time. Throws BrokenRules.
    std::string_view nameAt(std::uint32_t untrustedOffset);
    const Opaque* instrumentAt(std::uint32_t untrustedOffset);
    std::string_view keyAt(std::uint32_t untrustedOffset);

    struct Name {
        const Opaque* instrument = nullptr;
        std::string_view key;
    };
    Name& knownName(std::uint32_t untrustedOffset);

    FileDescriptor file_;
    RingTerms terms_;
    std::uint32_t thread_ = 0;
    std::uint32_t threadId_ = 0;
    std::string threadName_;
    wire::Clock clock_ = wire::Clock::monotonic;
    std::uint64_t tail_ = 0;
    std::uint64_t head_ = 0;
    std::uint64_t fetched_ = 0;  ///< where the buffer begins
    std::size_t fetchedBytes_ = 0;
    int oddReadings_ = 0;
    bool hasEnded_ = false;
    RingAccount account_;
    std::vector<Name> names_;  ///< by offset, in eights
    Buffer nameBuffer_;
    std::array<RingEntry, wire::mostEntries> entries_;
};

}  // namespace instrument::detail
