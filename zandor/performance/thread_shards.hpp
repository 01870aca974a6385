// What a listener keeps for each thread that produces events, one shard a thread, so that nobody
// waits on the hot path. The listener registers, threads find their shard, readers go through all.
//
// Shards are never taken away but all together, by clear: then a thread begins a new one. A reader
// that is under way keeps those that it reads; a thread that is inside a callback keeps its own. In
// a child after fork there is none.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

#include "zandor/instrument/fork_private.hpp"
#include "zandor/instrument/listener.hpp"
#include "zandor/instrument/listener_data.hpp"
#include "zandor/instrument/lock.hpp"

namespace instrument::detail {

/// Shard: made in zeroed memory by placement; its destructor gives back what it took; its member
/// `next` and `nextChain` are Shard*, null at first, and `isOf(key)` tells whether it is the one
/// for a key.
template <class Shard>
class ThreadShards {
  public:
    ThreadShards() = default;
    ~ThreadShards() {
        destroyChain(state_->shards.load(std::memory_order_relaxed));
        destroyChains(state_->retired);
    }
    ThreadShards(const ThreadShards&) = delete;
    ThreadShards& operator=(const ThreadShards&) = delete;

    /// The shard that the thread found last which delivers the event; null when it found none yet.
    Shard* known(const EventContext& context) const noexcept { return known(context.slots()); }
    Shard* known(const ListenerSlot* slots) const noexcept {
        return static_cast<Shard*>(data_.get(slots));
    }
    /// The shard of the key, which this thread finds from now on; made where there is none. Null
    /// when the system gives no memory.
    template <class Key>
    Shard* enter(const Key& key) noexcept {
        const std::uint64_t age = data_.age();
        Shard* const shard = findOrAdd(key);
        data_.set(shard, age);
        return shard;
    }

    template <class Key>
    Shard* find(const Key& key) const noexcept {
        // Pairs with the release in add.
        Shard* shard = state_->shards.load(std::memory_order_acquire);
        while (shard && !shard->isOf(key))
            shard = shard->next;
        return shard;
    }

    /// The shard of the key, made where there is none; null when the system gives no memory.
    template <class Key>
    Shard* findOrAdd(const Key& key) noexcept {
        if (Shard* known = find(key))
            return known;
        void* memory = mapMemory(sizeof(Shard));
        if (!memory)
            return nullptr;
        Shard* const made = std::construct_at(static_cast<Shard*>(memory), key);
        const Locked locked(state_->lock);
        if (Shard* known = find(key)) {
            destroy(made);
            return known;
        }
        made->next = state_->shards.load(std::memory_order_relaxed);
        // Pairs with the acquire in find and forEach.
        state_->shards.store(made, std::memory_order_release);
        return made;
    }

    /// Calls visit(Shard&) for each. Allocating there is fine: no lock is held.
    template <class Visit>
    void forEach(const InstrumentListener& listener, Visit visit) const {
        const Pin pin(*this, listener);
        for (Shard* shard = pin.shards; shard; shard = shard->next)
            visit(*shard);
    }

    /// Empties the listener's data. What a thread that is inside a callback adds meanwhile may
    /// still go to what is given up.
    void clear(const InstrumentListener& listener) noexcept {
        {
            const Locked locked(state_->lock);
            // As it is, for those who read it.
            if (Shard* const chain = state_->shards.exchange(nullptr, std::memory_order_relaxed))
                chain->nextChain = std::exchange(state_->retired, chain);
            data_.forgetAll();
        }
        releaseRetired(listener);
    }

    Lock& lock() const noexcept { return state_->lock; }

    /// Events that were lost because the system gave no memory.
    void countLost() noexcept { state_->lost.fetch_add(1, std::memory_order_relaxed); }
    std::uint64_t lost() const noexcept { return state_->lost.load(std::memory_order_relaxed); }

  private:
    /// All-zero at first, and in a child.
    struct State {
        Lock lock;
        /// Released where a thread adds its own, acquired by who goes through them; relaxed under
        /// the lock.
        std::atomic<Shard*> shards;
        Shard* retired;  ///< chains of what was cleared
        std::size_t readers;
        std::atomic<std::uint64_t> lost;  // relaxed: it only counts
    };

    struct Pin {
        Pin(const ThreadShards& all, const InstrumentListener& listener)
            : all_(all), listener_(listener) {
            const Locked locked(all_.state_->lock);
            ++all_.state_->readers;
            shards = all_.state_->shards.load(std::memory_order_acquire);
        }
        ~Pin() {
            {
                const Locked locked(all_.state_->lock);
                --all_.state_->readers;
            }
            all_.releaseRetired(listener_);
        }
        Pin(const Pin&) = delete;
        Pin& operator=(const Pin&) = delete;

        Shard* shards;

      private:
        const ThreadShards& all_;
        const InstrumentListener& listener_;
    };

    /// Inside a callback nothing is waited for: a later call frees what this one leaves.
    void releaseRetired(const InstrumentListener& listener) const noexcept {
        if (ListenerData::isInsideListener())
            return;
        Shard* retired;
        {
            const Locked locked(state_->lock);
            if (state_->readers > 0)
                return;
            retired = std::exchange(state_->retired, nullptr);
        }
        if (!retired)
            return;
        listeners.drain(listener);
        destroyChains(retired);
    }

    static void destroy(Shard* shard) noexcept {
        std::destroy_at(shard);
        unmapMemory(shard, sizeof(Shard));
    }
    static void destroyChain(Shard* chain) noexcept {
        while (chain)
            destroy(std::exchange(chain, chain->next));
    }
    static void destroyChains(Shard* chains) noexcept {
        while (chains)
            destroyChain(std::exchange(chains, chains->nextChain));
    }

    ListenerData data_;
    mutable ForkPrivate<State> state_;
};

}  // namespace instrument::detail
