// What clients and hosts of the external events say to each other: messages over a socket, and
// shared memory.
//
//   client                                host
//   Hello + counters  ------------------>           who it is; what it had to drop without a ring
//                     <------------------  Welcome + control: the lease, and how far rings are read
//   RingOffer + ring  ------------------>           one for each thread that produces
//   tail, in the ring ------------------>  read by pread
//                     <------------------  head, in the control
//
// The side that writes a memory made it, sealed against growing and shrinking and, once it was
// mapped, against any other writer. The other side believes nothing that it reads. All integers
// are of the machine's own byte order; both sides run on one machine. What changes here changes
// `version`.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zandor::client::wire {

inline constexpr std::uint64_t magic = 0x31'73'74'6e'65'76'65'7a;
inline constexpr std::uint32_t version = 1;

inline constexpr std::size_t nameBytes = 64;  // of clients and threads, NUL included

// Bounds that both sides hold the other to.
inline constexpr std::uint32_t minDataBytes = 1 << 12;
inline constexpr std::uint32_t maxDataBytes = 1 << 26;
inline constexpr std::uint32_t minNamesBytes = 1 << 12;
inline constexpr std::uint32_t maxNamesBytes = 1 << 20;
inline constexpr std::uint32_t maxRingSlots = 1 << 14;
inline constexpr std::size_t longestName = 1023;
inline constexpr std::size_t longestContext = 1 << 14;  // bytes of all values
inline constexpr std::size_t mostEntries = 64;

enum class Clock : std::uint32_t {
    monotonic = 0,  ///< nanoseconds of the monotonic clock
    tsc = 1,        ///< the processor's time-stamp counter, by which the kernel keeps its time
};

/// Why a client dropped an event.
enum class Drop : std::uint32_t {
    full,      ///< the ring had no room
    names,     ///< the ring's room for names was used up
    oversize,  ///< a text or the context was too long
    nested,    ///< in a signal handler that interrupted another event of the thread
    memory,    ///< the system gave no memory or descriptor for a ring
    rings,     ///< the host takes no more rings, or none now
    ended,     ///< the thread was past its end
};
inline constexpr std::size_t dropCauses = 7;
/// As accounts name them, by Drop.
inline constexpr const char* dropNames[dropCauses] = {"full",   "names", "oversize", "nested",
                                                      "memory", "rings", "ended"};

// Messages. Each is one packet.

enum class Request : std::uint32_t { join = 1, list = 2 };

/// The first word from the client. With a descriptor of its Counters where it joins.
struct Hello {
    std::uint64_t magic;
    std::uint32_t version;
    std::uint32_t request;
    std::uint32_t headerBytes;
    std::uint32_t recordBytes;
    std::uint32_t countersBytes;
    std::uint32_t reserved;
    char name[nameBytes];
};
static_assert(sizeof(Hello) == 96 && offsetof(Hello, name) == 32);

enum class Outcome : std::uint32_t { welcome = 0, otherVersion = 1, refused = 2 };

/// The host's answer. With a descriptor of the Control where the client is welcome.
struct Welcome {
    std::uint64_t magic;
    std::uint32_t version;
    std::uint32_t outcome;
    std::uint64_t session;  ///< distinguishes what the client offers from earlier offers
    std::uint32_t controlBytes;
    std::uint32_t ringSlots;
    std::uint32_t namesBytes;
    std::uint32_t dataBytes;
};
static_assert(sizeof(Welcome) == 40 && offsetof(Welcome, session) == 16);

/// A thread's ring, as a descriptor.
struct RingOffer {
    std::uint64_t magic;
    std::uint64_t session;
    std::uint32_t slot;  ///< where in the Control the host says how far it read
    std::uint32_t ring;  ///< its number, from 1; a slot is free again when the host released it
};
static_assert(sizeof(RingOffer) == 24 && offsetof(RingOffer, slot) == 16);

/// The host's word that the lease, which had run out, is good again.
struct Renewal {
    std::uint64_t magic;
    std::uint64_t session;
};
static_assert(sizeof(Renewal) == 16);

/// One for each client that a host has, in answer to Request::list; a name of a client with
/// process id 0 ends the list.
struct ClientReport {
    std::uint64_t magic;
    std::uint64_t processId;
    std::uint64_t threads;
    std::uint64_t published;
    std::uint64_t delivered;
    std::uint64_t dropped;
    char name[nameBytes];
};
static_assert(sizeof(ClientReport) == 112 && offsetof(ClientReport, name) == 48);

// Shared memory.

/// What a client dropped where it had no ring to count in. The client's.
struct Counters {
    std::uint64_t magic;
    std::uint64_t drops[dropCauses];
};
static_assert(sizeof(Counters) == 64 && offsetof(Counters, drops) == 8);

/// The host's word on one ring.
struct RingSlot {
    std::uint64_t head;      ///< bytes read: before it there is room
    std::uint32_t released;  ///< the number of the latest ring that the host is done with
    std::uint32_t reserved;
};
static_assert(sizeof(RingSlot) == 16);

/// The host's, one for each client. The slots follow.
struct Control {
    std::uint64_t magic;
    std::uint64_t session;
    std::int64_t leaseUntil;  ///< nanoseconds of the monotonic clock; in the past: nothing wanted
    std::uint64_t reserved[5];
};
static_assert(sizeof(Control) == 64 && offsetof(Control, leaseUntil) == 16);

/// The beginning of a ring. The client's. Positions count bytes since the beginning.
struct RingHeader {
    std::uint64_t magic;
    std::uint32_t version;
    std::uint32_t clock;
    std::uint64_t session;
    std::uint32_t ring;
    std::uint32_t thread;  ///< the client's number for the thread, from 1
    std::uint32_t namesBytes;
    std::uint32_t dataBytes;
    std::uint32_t threadId;  ///< the kernel's
    std::uint32_t reserved0;
    char threadName[nameBytes];
    std::uint64_t reserved1[2];
    // As it goes:
    std::uint64_t tail;     ///< bytes of records
    std::uint64_t written;  ///< events: records but for padding
    std::uint64_t drops[dropCauses];
    std::uint32_t namesEnd;  ///< bytes of names
    std::uint32_t ended;     ///< 1: nothing will be added
    std::uint64_t reserved2[6];
};
static_assert(sizeof(RingHeader) == 256);
static_assert(offsetof(RingHeader, session) == 16 && offsetof(RingHeader, threadName) == 48);
static_assert(offsetof(RingHeader, tail) == 128 && offsetof(RingHeader, drops) == 144);
static_assert(offsetof(RingHeader, namesEnd) == 200 && offsetof(RingHeader, ended) == 204);

inline constexpr std::uint32_t namesOffset = 4096;
constexpr std::uint32_t dataOffset(std::uint32_t namesBytes) {
    return namesOffset + namesBytes;
}
constexpr std::uint64_t ringBytes(std::uint32_t namesBytes, std::uint32_t dataBytes) {
    return std::uint64_t{dataOffset(namesBytes)} + dataBytes;
}

/// In the room for names: this, the bytes, and filling to the next multiple of 8. A name is known
/// by its offset there.
struct NameHead {
    std::uint32_t length;
    std::uint32_t reserved;
};
static_assert(sizeof(NameHead) == 8);

enum class RecordKind : std::uint16_t { start = 1, stop = 2, instant = 3 };

/// The beginning of a record. What `stamp` says is written last, so that a reader tells a record
/// from what was there before it.
struct Record {
    std::uint32_t bytes;  ///< with the context and filling: a multiple of 8
    std::uint32_t stamp;  ///< of the record's position
    std::uint64_t ticks;
    std::uint64_t serial;     ///< the event's
    std::uint32_t reference;  ///< of a stop: the thread that the event started on; else the name
    std::uint16_t kind;
    std::uint16_t entries;
};
static_assert(sizeof(Record) == 32 && offsetof(Record, serial) == 16);
static_assert(offsetof(Record, reference) == 24 && offsetof(Record, kind) == 28);

/// Other than what the same place held on an earlier round.
constexpr std::uint32_t stampOf(std::uint64_t position) {
    return static_cast<std::uint32_t>(position >> 3) ^ 0x5a5a'5a5a;
}
/// Marks the length of padding: no record, but the rest of the round, where the next one has no
/// room in one piece.
inline constexpr std::uint32_t paddingBit = 1u << 31;

/// A context entry: this and the value's bytes, one entry behind the other, filled to a multiple of
/// 8 at the record's end only.
struct EntryHead {
    std::uint32_t key;  ///< a name
    std::uint32_t length;
};
static_assert(sizeof(EntryHead) == 8);

constexpr std::uint64_t upToEight(std::uint64_t bytes) {
    return (bytes + 7) & ~std::uint64_t{7};
}

}  // namespace zandor::client::wire
