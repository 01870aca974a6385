// The calls of one source of events as a tree of calling contexts, and the calls that are open.
//
// Only the source's thread (or whoever holds the profiler's lock, for sources that are not threads
// of this process) starts and stops calls. Others may read the tree meanwhile, and take an open
// call to stop it.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "zandor/instrument/control_element.hpp"
#include "zandor/instrument/lock.hpp"
#include "zandor/performance/duration_histogram.hpp"
#include "zandor/performance/mapped_chunks.hpp"

namespace instrument::detail {

/// An instrument's calls, however they came about: few, so that they stay near at hand where paths
/// are many.
struct InstrumentCalls {
    const Opaque* instrument;
    std::uint32_t openBelow;  ///< on the stack, beyond the deepest level of the tree
    DurationHistogram durations;
};

/// One call path. What is atomic is written by the tree's thread alone; relaxed: whoever has to see
/// a call learned of it otherwise.
struct alignas(64) CallNode {
    static constexpr std::size_t children = 4;

    // What a call from here looks at, in one line.
    const Opaque* instrument;
    CallNode* parent;
    /// Its first children. Programs touch much memory between two calls, so that they are looked
    /// for where the caller is; those beyond are in a table of the tree's, as are all that are
    /// below its deepest level.
    std::array<std::uint32_t, children> childKeys;
    std::array<CallNode*, children> childNodes;

    // What a call of its own looks at when it ends, in one line.
    InstrumentCalls* all;
    std::int64_t firstStart;
    /// Released when all else of the call is counted, acquired by readers: then it is there.
    /// Relaxed for the tree's thread.
    std::atomic<std::uint64_t> calls;
    // Relaxed, each.
    std::atomic<std::int64_t> total;
    std::atomic<std::int64_t> self;
    std::atomic<std::int64_t> min;
    std::atomic<std::int64_t> max;
    std::uint32_t number;
    std::uint16_t depth;
    /// A caller has the same instrument: its total has these calls already.
    bool isNested;
    /// Beyond the deepest level of the tree: calls from here are its siblings.
    bool isBelow;

    /// Of a child: never 0, which stands for none.
    static std::uint32_t keyOf(const Opaque* instrument) noexcept { return instrument->id + 1; }
};
static_assert(offsetof(CallNode, all) == 64 && sizeof(CallNode) == 128);

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

    explicit CallingContextTree(const Key& key) noexcept;
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
    /// Does nothing for a call that is not open here. Gives true, as short operations of listeners
    /// do, so that it can be the last step of one.
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

    /// Calls visit(instrument, DurationHistogram) for each instrument. From any thread; has the
    /// calls that a visit of the paths before told of.
    template <class Visit>
    void forEachDurations(Visit visit) const {
        // Pairs with the release in callsOf.
        const std::uint32_t count = instrumentCount_.load(std::memory_order_acquire);
        for (std::uint32_t place = 0; place < count; ++place) {
            const InstrumentCalls& calls = instruments_[place];
            visit(calls.instrument, calls.durations);
        }
    }

  private:
    static constexpr std::uint64_t takenBit = 1;
    static constexpr std::uint32_t framesAtOnce = 256;

    /// A place on the stack for an open call. Those of a stack have rising serials.
    struct alignas(64) Frame {
        /// The serial, and in the lowest bit whether the call was taken or ended. Released where
        /// the call starts, acquired by other threads, which take it; relaxed for its own.
        std::atomic<std::uint64_t> word;
        /// That of the call if another thread takes it. Relaxed: looked at under the lock.
        std::atomic<std::uint64_t> takenSerial;
        std::atomic<std::int64_t> start;
        std::atomic<CallNode*> node;
        std::atomic<std::uint32_t> place;  ///< how high; never changed
        // Its thread's alone.
        bool isBelow;   ///< as of the node
        bool isNested;  ///< of one below: another call of the instrument is open there
        std::int64_t inside;
        Frame* below;
        Frame* above;  ///< null where the stack never was as high

        /// By its own thread or another one.
        bool isEnded() const noexcept {
            return (word.load(std::memory_order_relaxed) & takenBit) != 0;
        }
    };
    static_assert(sizeof(Frame) == 64);

    /// A child and its key, so that looking for it touches no other child; all-zero is free.
    struct Slot {
        std::uint64_t key;
        CallNode* node;
    };
    static std::uint64_t keyOf(const CallNode& parent, const Opaque* instrument) noexcept {
        return std::uint64_t{parent.number} << 32 | CallNode::keyOf(instrument);
    }

    Frame* top() const noexcept { return top_.load(std::memory_order_relaxed); }
    Frame* above(Frame* frame) noexcept;
    Frame* provideFrame(Frame* below) noexcept;
    CallNode* childOf(CallNode& caller, const Opaque* instrument, std::int64_t start) noexcept;
    CallNode* addNode(CallNode& parent, const Opaque* instrument, std::int64_t start) noexcept;
    InstrumentCalls* callsOf(const Opaque* instrument) noexcept;
    Slot& slotOf(std::uint64_t key) const noexcept;
    bool provideSlot() noexcept;

    bool startGenerally(const Opaque* instrument, std::uint64_t serial, std::int64_t time) noexcept;
    void open(Frame& frame, CallNode& node, std::uint64_t serial, std::int64_t time) noexcept;
    bool stopMarked(std::uint64_t serial, std::int64_t time) noexcept;
    bool stopGenerally(std::uint64_t serial, std::int64_t time) noexcept;
    Frame* frameOf(std::uint64_t serial) noexcept;
    bool markOwn(Frame& frame, std::uint64_t serial) noexcept;
    bool takeForeign(Frame& frame, std::uint64_t serial) noexcept;
    bool wasTaken(const Frame& frame, std::uint64_t serial) noexcept;
    static void end(Frame& frame, std::int64_t time) noexcept;
    static void end(Frame& frame, Frame& caller, std::int64_t time, bool isNested) noexcept;
    void pop(Frame& frame) noexcept;
    Frame* popEnded() noexcept;
    static void count(CallNode& node, const EndedCall& call) noexcept;

    Key key_;
    std::atomic<std::uint64_t> source_;  // relaxed: whoever looks for a call checks its word
    std::atomic<bool> hasFirstEvent_{false};
    std::atomic<std::int64_t> firstEvent_{0};

    Lock takeLock_;
    /// Odd while another thread takes a call. Changed under the lock.
    std::atomic<std::uint64_t> takes_{0};
    /// What its own thread saw of it: even.
    std::uint64_t takesSeen_ = 0;

    std::atomic<std::uint32_t> nodeCount_{0};
    /// The nodes that their parents have no place for: a hash table.
    Slot* slots_ = nullptr;
    std::size_t slotCount_ = 0;  ///< a power of two
    std::size_t slotsUsed_ = 0;

    CallNode root_{};
    Frame ground_{};  ///< below the first call; never ends
    /// The innermost call on the stack, or the ground. Relaxed: whoever takes a call checks its
    /// word.
    std::atomic<Frame*> top_{&ground_};
    MappedChunks<Frame, framesAtOnce, 4096> frames_;  // that at the place of 1 is the first
    MappedChunks<CallNode, 256, 1024> nodes_;         // 0 stands for the root
    std::atomic<std::uint32_t> instrumentCount_{0};
    MappedChunks<InstrumentCalls, 8, 16384> instruments_;
    /// By the instrument's number.
    MappedChunks<InstrumentCalls*, 2048, 512> callsByNumber_;
};

}  // namespace instrument::detail
