// A client's connection to one host. The client's own thread makes and ends it; threads that
// produce use it now and then, to open a ring or to ask how far one was read.
#pragma once

#include <atomic>
#include <cstdint>

#include "zandor/client/shared_memory.hpp"
#include "zandor/client/wire.hpp"

namespace zandor::client {

inline constexpr std::size_t hostNameBytes = 64;

/// All-zero is none.
struct Session {
    enum class Stage : std::uint8_t { none, greeted, joined, leaving };

    /// Which one it is; never the same twice in a process, and 0 where there is none. Looked at
    /// after `users` was raised, in one order that all agree on: then either the user sees that it
    /// is over, or whoever ends it sees the user.
    std::atomic<std::uint64_t> epoch;
    std::atomic<std::uint32_t> users;

    // Set before epoch, and left alone until it is 0 and there are no users.
    std::uint64_t hostsNumber;  ///< what the host calls it
    int socket;
    std::uint32_t ringSlots;
    std::uint32_t namesBytes;
    std::uint32_t dataBytes;
    wire::Clock clock;
    Mapping control;
    Mapping counters;
    Mapping slotRings;                 ///< for each slot the ring that took it last; 32 bits
    std::atomic<std::uint32_t> rings;  ///< taken so far; relaxed: only distinctness counts

    // Of the client's own thread.
    Stage stage;
    char host[hostNameBytes];

    const wire::Control& controlBlock() const noexcept { return *control.as<wire::Control>(); }
    const wire::RingSlot& slot(std::uint32_t index) const noexcept {
        return reinterpret_cast<const wire::RingSlot*>(control.as<wire::Control>() + 1)[index];
    }
    /// Relaxed: it only counts.
    void count(wire::Drop cause) noexcept {
        std::atomic_ref(counters.as<wire::Counters>()->drops[static_cast<std::size_t>(cause)])
            .fetch_add(1, std::memory_order_relaxed);
    }
    /// Takes a slot for a new ring; false where all are taken.
    bool takeSlot(std::uint32_t& slot, std::uint32_t& ring) noexcept;
    void giveBackSlot(std::uint32_t slot) noexcept;
};

/// Keeps a session from being taken apart; false where it is over.
class SessionUse {
  public:
    SessionUse(Session& session, std::uint64_t epoch) noexcept : session_(session) {
        session_.users.fetch_add(1);
        isGood_ = epoch != 0 && session_.epoch.load() == epoch;
    }
    ~SessionUse() { session_.users.fetch_sub(1); }
    SessionUse(const SessionUse&) = delete;
    SessionUse& operator=(const SessionUse&) = delete;
    explicit operator bool() const noexcept { return isGood_; }

  private:
    Session& session_;
    bool isGood_;
};

/// Reads what the other side may be writing.
template <class T>
T readShared(const T& word) noexcept {
    // Acquire pairs with the writer's release, on the other side of the shared memory.
    return std::atomic_ref(const_cast<T&>(word)).load(std::memory_order_acquire);
}

}  // namespace zandor::client
