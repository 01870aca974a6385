// The calls of one source of events as a tree of calling contexts, and the calls that are open.
//
// Only the source's thread (or whoever holds the profiler's lock, for sources that are not threads
// of this process) starts and stops calls. Others may read the tree meanwhile, and take an open
// call to stop it.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "zandor/instrument/control_element.hpp"
#include "zandor/instrument/lock.hpp"
#include "zandor/performance/duration_histogram.hpp"
#include "zandor/performance/mapped_chunks.hpp"

namespace instrument::detail {

/// One call path. What is atomic is written by the tree's thread alone; relaxed: whoever has to see
/// a call learned of it otherwise.
struct CallNode {
    const Opaque* instrument;
    std::uint32_t parent;
    std::uint32_t depth;
    /// A caller has the same instrument: its total has these calls already.
    bool isNested;
    std::uint32_t lastChild;
    /// Open calls, where paths are too deep to be told apart.
    std::uint32_t open;
    std::int64_t firstStart;
    std::atomic<std::uint64_t> calls;
    std::atomic<std::int64_t> total;
    std::atomic<std::int64_t> self;
    std::atomic<std::int64_t> min;
    std::atomic<std::int64_t> max;
    DurationHistogram* durations;  ///< shared by all paths to the instrument
};

/// The durations of an instrument's calls, however they came about: few, so that they stay near at
/// hand where paths are many.
struct InstrumentDurations {
    const Opaque* instrument;
    DurationHistogram histogram;
};

/// A call that ended.
struct EndedCall {
    std::int64_t duration = 0;
    std::int64_t inside = 0;  ///< of that, in calls of its own
    bool isNested = false;
};

/// A call that another thread took to stop it.
struct TakenCall {
    const Opaque* instrument;
    std::int64_t start;
    bool isNested;
};

class CallingContextTree {
  public:
    /// Whose tree it is: a thread's for its own events, whatever source it has; or a source's.
    struct Key {
        const void* thread;
        std::uint64_t source;
    };
    /// The tree that has the calls of a source now.
    struct OfSource {
        std::uint64_t source;
    };

    explicit CallingContextTree(const Key& key) noexcept : key_(key), source_(key.source) {}
    ~CallingContextTree();
    CallingContextTree(const CallingContextTree&) = delete;
    CallingContextTree& operator=(const CallingContextTree&) = delete;

    bool isOf(const Key& key) const noexcept {
        return key_.thread == key.thread && key_.source == key.source;
    }
    bool isOf(OfSource of) const noexcept { return source() == of.source; }
    CallingContextTree* next = nullptr;       // in the chain of all trees
    CallingContextTree* nextChain = nullptr;  // among those given up

    std::uint64_t source() const noexcept { return source_.load(std::memory_order_relaxed); }
    /// Forgets the open calls of the source before.
    void setSource(std::uint64_t source) noexcept;

    void note(std::int64_t time) noexcept {
        if (!hasFirstEvent_.load(std::memory_order_relaxed)) [[unlikely]] {
            firstEvent_.store(time, std::memory_order_relaxed);
            // Pairs with the acquire in firstEvent.
            hasFirstEvent_.store(true, std::memory_order_release);
        }
    }
    bool hasFirstEvent() const noexcept { return hasFirstEvent_.load(std::memory_order_relaxed); }
    std::optional<std::int64_t> firstEvent() const noexcept {
        if (!hasFirstEvent_.load(std::memory_order_acquire))
            return std::nullopt;
        return firstEvent_.load(std::memory_order_relaxed);
    }

    /// False when the system gives no memory: then the call does not count.
    bool start(const Opaque* instrument, std::uint64_t serial, std::int64_t time) noexcept;
    /// False for a call that is not open here.
    bool stop(std::uint64_t serial, std::int64_t time) noexcept;
    /// Takes an open call out, from another thread.
    std::optional<TakenCall> take(std::uint64_t serial) noexcept;
    /// Counts a call that this thread took from another one.
    bool addTaken(const TakenCall& call, std::int64_t stop) noexcept;

    /// Calls visit(const CallNode&) for each call path. From any thread.
    template <class Visit>
    void forEach(Visit visit) const {
        // Pairs with the release in addNode: with the count come the nodes.
        const std::uint32_t count = nodeCount_.load(std::memory_order_acquire);
        for (std::uint32_t node = 1; node < count; ++node)
            visit(static_cast<const CallNode&>(nodes_[node]));
    }

    /// Calls visit(const InstrumentDurations&) for each instrument. From any thread; has the calls
    /// that a visit of the paths before told of.
    template <class Visit>
    void forEachDurations(Visit visit) const {
        // Pairs with the release in durationsOf.
        const std::uint32_t count = durationsCount_.load(std::memory_order_acquire);
        for (std::uint32_t place = 0; place < count; ++place)
            visit(static_cast<const InstrumentDurations&>(durations_[place]));
    }

  private:
    /// An open call. Those of a stack have rising serials.
    struct Frame {
        /// The serial, and in the lowest bit whether the call was taken or ended.
        std::atomic<std::uint64_t> word;
        /// That of the call if another thread takes it. Relaxed: looked at under the lock.
        std::atomic<std::uint64_t> takenSerial;
        std::atomic<std::int64_t> start;
        std::atomic<std::uint32_t> node;
        bool isNested;
        std::int64_t inside;
    };
    static constexpr std::uint64_t takenBit = 1;

    std::uint32_t childOf(std::uint32_t parent, const Opaque* instrument,
                          std::int64_t start) noexcept;
    std::uint32_t addNode(std::uint32_t parent, const Opaque* instrument,
                          std::int64_t start) noexcept;
    DurationHistogram* durationsOf(const Opaque* instrument) noexcept;
    bool isInside(std::uint32_t node, const Opaque* instrument) const noexcept;
    std::size_t slotOf(std::uint32_t parent, const Opaque* instrument) const noexcept;
    bool growSlots() noexcept;

    std::uint32_t frameOf(std::uint64_t serial) const noexcept;
    bool takeOwn(Frame& frame, std::uint64_t serial) noexcept;
    bool takeForeign(Frame& frame, std::uint64_t serial) noexcept;
    bool wasTaken(const Frame& frame, std::uint64_t serial) noexcept;
    void end(std::uint32_t index, std::int64_t time) noexcept;
    void popEnded() noexcept;
    static void count(CallNode& node, const EndedCall& call) noexcept;

    Key key_;
    std::atomic<std::uint64_t> source_;
    std::atomic<bool> hasFirstEvent_{false};
    std::atomic<std::int64_t> firstEvent_{0};

    Lock takeLock_;
    /// Odd while another thread takes a call. Changed under the lock.
    std::atomic<std::uint64_t> takes_{0};

    std::atomic<std::uint32_t> depth_{0};  // relaxed: whoever takes a call checks its word
    std::atomic<std::uint32_t> nodeCount_{0};
    /// Children by parent and instrument: a hash table of node numbers, 0 is free.
    std::uint32_t* slots_ = nullptr;
    std::size_t slotCount_ = 0;

    MappedChunks<Frame, 256, 4096> frames_;
    MappedChunks<CallNode, 256, 1024> nodes_;  // the first is the root
    std::atomic<std::uint32_t> durationsCount_{0};
    MappedChunks<InstrumentDurations, 8, 16384> durations_;
    /// By the instrument's number: the place of its durations and 1, or 0.
    MappedChunks<std::uint32_t, 4096, 256> durationsPlaces_;
};

}  // namespace instrument::detail
