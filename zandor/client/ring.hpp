// One thread's ring for one host: where its events are put.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "name_table.hpp"
#include "zandor/client/shared_memory.hpp"
#include "zandor/client/wire.hpp"

namespace zandor::client {

struct Session;

/// A context as the caller gave it.
struct Context {
    const char* const* keys;
    const char* const* values;
    std::size_t count;
};

/// Used by its thread alone. All-zero is closed.
class Ring {
  public:
    /// Makes the memory and offers it to the session's host. The caller is a user of the session.
    /// False, and counted with the session, where that fails; then it is not tried again at each
    /// event.
    bool open(Session& session, std::uint32_t thread, const char* threadName) noexcept;
    /// Says that no more will come; the host has what was put.
    void close() noexcept;

    bool isOpen() const noexcept { return static_cast<bool>(memory_); }
    /// The session it was opened for, which may be over.
    std::uint64_t epoch() const noexcept { return epoch_; }

    /// Each puts one event, or counts why not.
    [[gnu::always_inline]] bool putNamed(wire::RecordKind kind, const char* name,
                                         const Context& context, std::uint64_t serial,
                                         std::uint64_t ticks) noexcept {
        std::uint32_t id = 0;
        wire::Drop cause{};
        if (!names_.find(name, id, cause)) [[unlikely]]
            return drop(cause);
        if (context.count != 0)
            return putWithContext(kind, id, context, serial, ticks);
        char* const place = reserve(sizeof(wire::Record), keptForStops_);
        if (!place) [[unlikely]]
            return drop(wire::Drop::full);
        commit(place,
               {sizeof(wire::Record), 0, ticks, serial, id, static_cast<std::uint16_t>(kind), 0});
        return true;
    }
    bool putStop(std::uint32_t thread, std::uint64_t serial, std::uint64_t ticks) noexcept {
        char* const place = reserve(sizeof(wire::Record), 0);
        if (!place) [[unlikely]]
            return drop(wire::Drop::full);
        commit(place, {sizeof(wire::Record), 0, ticks, serial, thread,
                       static_cast<std::uint16_t>(wire::RecordKind::stop), 0});
        return true;
    }
    [[gnu::cold]] bool drop(wire::Drop cause) noexcept;

  private:
    struct Sizes {
        std::uint32_t keys[wire::mostEntries];
        std::uint32_t values[wire::mostEntries];
        std::uint64_t bytes;  ///< of the whole record
    };

    wire::RingHeader& header() const noexcept { return *memory_.as<wire::RingHeader>(); }
    char* data() const noexcept {
        return memory_.as<char>() + wire::dataOffset(header().namesBytes);
    }
    bool make(Session& session, std::uint32_t thread, const char* threadName,
              wire::Drop& cause) noexcept;
    void describe(Session& session, std::uint32_t thread, const char* threadName) noexcept;
    bool offer(Session& session, int descriptor) noexcept;
    bool measure(const Context& context, Sizes& sizes, wire::Drop& cause) noexcept;
    bool putWithContext(wire::RecordKind kind, std::uint32_t name, const Context& context,
                        std::uint64_t serial, std::uint64_t ticks) noexcept;

    /// Room for a record in one piece, with as much left; null where there is none.
    char* reserve(std::uint64_t bytes, std::uint64_t left) noexcept {
        const std::uint64_t round = tail_ & mask_;
        if (tail_ + bytes + left > limit_ || round + bytes > mask_ + 1) [[unlikely]]
            return reserveSlowly(bytes, left);
        return data_ + round;
    }
    [[gnu::cold]] char* reserveSlowly(std::uint64_t bytes, std::uint64_t left) noexcept;
    bool hasRoom(std::uint64_t bytes) noexcept;
    void pad(std::uint64_t bytes) noexcept;

    /// Writes the record's beginning, its stamp last, and shows it to the reader.
    void commit(char* place, wire::Record record) noexcept {
        auto* const to = reinterpret_cast<wire::Record*>(place);
        to->ticks = record.ticks;
        to->serial = record.serial;
        to->reference = record.reference;
        to->kind = record.kind;
        to->entries = record.entries;
        stamp(place, record.bytes, tail_);
        tail_ += record.bytes;
        wire::RingHeader& shared = header();
        // Release pairs with the reader's copy of the tail: what comes before it is whole.
        std::atomic_ref(shared.tail).store(tail_, std::memory_order_release);
        std::atomic_ref(shared.written).store(++written_, std::memory_order_relaxed);
    }
    static void stamp(char* place, std::uint32_t bytes, std::uint64_t position) noexcept {
        const std::uint64_t word = std::uint64_t{wire::stampOf(position)} << 32 | bytes;
        // Release pairs with the reader's copy: a record with its stamp is whole.
        std::atomic_ref(*reinterpret_cast<std::uint64_t*>(place))
            .store(word, std::memory_order_release);
    }

    Mapping memory_;
    char* data_;
    std::uint64_t mask_;
    std::uint64_t tail_;
    std::uint64_t limit_;         ///< up to where the host's latest known word leaves room
    std::uint64_t keptForStops_;  ///< so that what was started can still be stopped
    std::uint64_t written_;
    std::uint64_t epoch_;
    Session* session_;
    std::uint32_t slot_;
    // Where the last attempt to open it failed: why, and how many events will not try.
    wire::Drop failure_;
    std::uint32_t toSkip_;
    std::uint32_t skipped_;
    NameTable names_;
};

}  // namespace zandor::client
