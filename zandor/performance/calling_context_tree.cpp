#include "zandor/performance/calling_context_tree.hpp"

#include <algorithm>
#include <span>
#include <utility>

#include "zandor/instrument/fences.hpp"

namespace instrument::detail {

namespace {

constexpr std::uint32_t deepest = 1024;
constexpr std::size_t firstSlots = 1024;
/// The word of the ground: no open call's, and not ended.
constexpr std::uint64_t noCall = ~std::uint64_t{1};

/// Relaxed: written by the tree's thread alone.
template <class Number>
void increase(std::atomic<Number>& sum, Number by) noexcept {
    sum.store(sum.load(std::memory_order_relaxed) + by, std::memory_order_relaxed);
}

}  // namespace

CallingContextTree::CallingContextTree(const Key& key) noexcept : key_(key), source_(key.source) {
    ground_.node.store(&root_, std::memory_order_relaxed);
    ground_.word.store(noCall, std::memory_order_relaxed);
}

CallingContextTree::~CallingContextTree() {
    if (slots_)
        unmapMemory(slots_, slotCount_ * sizeof *slots_);
}

void CallingContextTree::setSource(std::uint64_t source) noexcept {
    for (Frame* frame = top(); frame != &ground_; frame = frame->below) {
        frame->word.store(takenBit, std::memory_order_relaxed);
        pop(*frame);
    }
    // Serials of the source before may come again.
    for (Frame* frame = ground_.above; frame; frame = frame->above)
        frame->takenSerial.store(0, std::memory_order_relaxed);
    source_.store(source, std::memory_order_relaxed);
}

namespace {

/// Whether children of it are in the tree's table.
bool mayHaveInTable(const CallNode& parent) noexcept {
    return parent.depth >= deepest || parent.childKeys.back() != 0;
}

/// Null where it is not among those that the parent has at hand.
[[gnu::always_inline]] inline CallNode* childAtHand(const CallNode& parent,
                                                    const Opaque* instrument) noexcept {
    const std::uint32_t key = CallNode::keyOf(instrument);
    for (std::size_t place = 0; place < CallNode::children; ++place)
        if (parent.childKeys[place] == key) [[likely]]
            return parent.childNodes[place];
    return nullptr;
}

}  // namespace

// Of the frequent edges all calls are the last thing that is done, so that nothing is kept over
// one.

bool CallingContextTree::start(const Opaque* instrument, std::uint64_t serial,
                               std::int64_t time) noexcept {
    Frame* const caller = top();
    Frame* const frame = caller->above;
    // Without the tree's first event there is no place above the ground yet.
    if (caller->isEnded() || !frame) [[unlikely]]
        return startGenerally(instrument, serial, time);
    CallNode* const node = childAtHand(*caller->node.load(std::memory_order_relaxed), instrument);
    if (!node) [[unlikely]]
        return startGenerally(instrument, serial, time);
    frame->isBelow = false;
    open(*frame, *node, serial, time);
    return true;
}

[[gnu::noinline]] bool CallingContextTree::startGenerally(const Opaque* instrument,
                                                          std::uint64_t serial,
                                                          std::int64_t time) noexcept {
    Frame* const caller = popEnded();
    if (caller == &ground_)
        note(time);
    Frame* const frame = above(caller);
    if (!frame)
        return false;
    CallNode* const node =
        childOf(*frame->below->node.load(std::memory_order_relaxed), instrument, time);
    if (!node)
        return false;
    frame->isBelow = node->isBelow;
    frame->isNested = node->isBelow && node->all->openBelow++ > 0;
    open(*frame, *node, serial, time);
    return true;
}

/// A call of the node, on top of the stack.
[[gnu::always_inline]] inline void CallingContextTree::open(Frame& frame, CallNode& node,
                                                            std::uint64_t serial,
                                                            std::int64_t time) noexcept {
    frame.inside = 0;
    frame.start.store(time, std::memory_order_relaxed);
    frame.node.store(&node, std::memory_order_relaxed);
    // Pairs with the acquire of those who take the call: with the word come start and node.
    frame.word.store(serial << 1, std::memory_order_release);
    top_.store(&frame, std::memory_order_relaxed);
}

bool CallingContextTree::stop(std::uint64_t serial, std::int64_t time) noexcept {
    Frame& frame = *top();
    // The ground is no call, and no serial of a call has the bit that a word has no room for: stops
    // come with whatever serial their caller gives.
    if (frame.word.load(std::memory_order_relaxed) != serial << 1 || !frame.below || serial >> 63)
        [[unlikely]]
        return stopGenerally(serial, time);
    if (!markOwn(frame, serial) || frame.isBelow) [[unlikely]]
        return stopMarked(serial, time);
    Frame& caller = *frame.below;
    const CallNode& node = *frame.node.load(std::memory_order_relaxed);
    end(frame, caller, time, node.isNested);
    top_.store(&caller, std::memory_order_relaxed);
    return true;
}

/// Of the innermost call, which is marked as ended, and may have been taken.
[[gnu::noinline]] bool CallingContextTree::stopMarked(std::uint64_t serial,
                                                      std::int64_t time) noexcept {
    Frame& frame = *top();
    if (wasTaken(frame, serial))
        note(time);
    else
        end(frame, time);
    popEnded();
    return true;
}

/// Of a call that is not the innermost, is none, or is being taken.
[[gnu::noinline]] bool CallingContextTree::stopGenerally(std::uint64_t serial,
                                                         std::int64_t time) noexcept {
    note(time);
    Frame* const frame = frameOf(serial);
    const std::uint64_t open = serial << 1;
    if (!frame || frame->word.load(std::memory_order_relaxed) != open)
        return true;
    if (!markOwn(*frame, serial) && wasTaken(*frame, serial))
        return true;
    end(*frame, time);
    popEnded();
    return true;
}

/// The place above one; null when the system gives no memory. Where there is none but the lowest,
/// all calls are forgotten: starts that nobody ever stops.
[[gnu::always_inline]] inline CallingContextTree::Frame* CallingContextTree::above(
    Frame* frame) noexcept {
    return frame->above ? frame->above : provideFrame(frame);
}

[[gnu::noinline]] CallingContextTree::Frame* CallingContextTree::provideFrame(
    Frame* below) noexcept {
    const std::uint32_t place = below->place.load(std::memory_order_relaxed) + 1;
    if (place > frames_.capacity) {
        setSource(source());
        return above(&ground_);
    }
    if (!frames_.provide(place - 1))
        return nullptr;
    Frame& frame = frames_[place - 1];
    frame.below = below;
    frame.place.store(place, std::memory_order_relaxed);
    below->above = &frame;
    return &frame;
}

/// Of the open calls the one of this serial; null where there is none. From any thread.
CallingContextTree::Frame* CallingContextTree::frameOf(std::uint64_t serial) noexcept {
    const auto serialAt = [this](std::uint32_t index) {
        return frames_[index].word.load(std::memory_order_acquire) >> 1;
    };
    const std::uint32_t depth = top()->place.load(std::memory_order_relaxed);
    std::uint32_t low = 0;
    for (std::uint32_t high = depth; low < high;) {
        const std::uint32_t middle = low + (high - low) / 2;
        if (serialAt(middle) < serial)
            low = middle + 1;
        else
            high = middle;
    }
    return low < depth && serialAt(low) == serial ? &frames_[low] : nullptr;
}

/// Whoever takes a call counts it: its own thread, which saw it open, or another one. False where
/// wasTaken has to tell.
[[gnu::always_inline]] inline bool CallingContextTree::markOwn(Frame& frame,
                                                               std::uint64_t serial) noexcept {
    frame.word.store(serial << 1 | takenBit, std::memory_order_relaxed);
    // Pairs with the heavy fence in takeForeign: one of the two sees the other.
    lightFence();
    // Pairs with the release at the end of a take: then its mark is seen.
    return takes_.load(std::memory_order_acquire) == takesSeen_;
}

bool CallingContextTree::takeForeign(Frame& frame, std::uint64_t serial) noexcept {
    const Locked locked(takeLock_);
    takes_.fetch_add(1, std::memory_order_relaxed);
    // Pairs with the light fence in markOwn.
    heavyFence();
    frame.takenSerial.store(serial, std::memory_order_relaxed);
    std::uint64_t open = serial << 1;
    const bool taken =
        frame.word.compare_exchange_strong(open, open | takenBit, std::memory_order_acq_rel);
    if (!taken)
        frame.takenSerial.store(0, std::memory_order_relaxed);
    // Pairs with the acquire in markOwn.
    takes_.fetch_add(1, std::memory_order_release);
    return taken;
}

/// Known once no take is under way. Relaxed: what it looks at changes under the lock alone.
[[gnu::noinline]] bool CallingContextTree::wasTaken(const Frame& frame,
                                                    std::uint64_t serial) noexcept {
    const Locked locked(takeLock_);
    takesSeen_ = takes_.load(std::memory_order_relaxed);
    return frame.takenSerial.load(std::memory_order_relaxed) == serial;
}

std::optional<TakenCall> CallingContextTree::take(std::uint64_t serial) noexcept {
    Frame* const found = frameOf(serial);
    if (!found)
        return std::nullopt;
    Frame& frame = *found;
    // Read before the call is taken: afterwards its place may be another's. If it is another's
    // already, what was read is of no use, and nothing is taken.
    const std::int64_t start = frame.start.load(std::memory_order_relaxed);
    const CallNode* const node = frame.node.load(std::memory_order_relaxed);
    if (!takeForeign(frame, serial))
        return std::nullopt;
    return TakenCall{node->instrument, start, node->isNested};
}

bool CallingContextTree::addTaken(const TakenCall& call, std::int64_t stop) noexcept {
    CallNode* const node = childOf(root_, call.instrument, call.start);
    if (!node)
        return false;
    count(*node, {stop - call.start, 0, call.isNested});
    return true;
}

void CallingContextTree::end(Frame& frame, std::int64_t time) noexcept {
    const CallNode& node = *frame.node.load(std::memory_order_relaxed);
    end(frame, *frame.below, time, node.isNested || (frame.isBelow && frame.isNested));
}
[[gnu::always_inline]] inline void CallingContextTree::end(Frame& frame, Frame& caller,
                                                           std::int64_t time,
                                                           bool isNested) noexcept {
    const std::int64_t duration = time - frame.start.load(std::memory_order_relaxed);
    caller.inside += duration;
    count(*frame.node.load(std::memory_order_relaxed), {duration, frame.inside, isNested});
}

/// Takes the innermost call off the stack.
[[gnu::always_inline]] inline void CallingContextTree::pop(Frame& frame) noexcept {
    if (frame.isBelow) [[unlikely]]
        --frame.node.load(std::memory_order_relaxed)->all->openBelow;
    top_.store(frame.below, std::memory_order_relaxed);
}

/// Takes those that were stopped off the stack, down to the first that is open, which it gives.
CallingContextTree::Frame* CallingContextTree::popEnded() noexcept {
    while (top()->isEnded())
        pop(*top());
    return top();
}

[[gnu::always_inline]] inline void CallingContextTree::count(CallNode& node,
                                                             const EndedCall& call) noexcept {
    const std::int64_t duration = call.duration;
    if (duration < node.min.load(std::memory_order_relaxed))
        node.min.store(duration, std::memory_order_relaxed);
    if (duration > node.max.load(std::memory_order_relaxed))
        node.max.store(duration, std::memory_order_relaxed);
    if (!call.isNested)
        increase(node.total, duration);
    increase(node.self, duration - call.inside);
    node.all->durations.add(duration);
    node.calls.store(node.calls.load(std::memory_order_relaxed) + 1, std::memory_order_release);
}

/// Beyond the deepest level all are children of the path up to there. Null when the system gives no
/// memory.
CallNode* CallingContextTree::childOf(CallNode& caller, const Opaque* instrument,
                                      std::int64_t start) noexcept {
    CallNode& parent = caller.isBelow ? *caller.parent : caller;
    if (CallNode* const known = childAtHand(parent, instrument))
        return known;
    const bool mayBeKnown = mayHaveInTable(parent) && slots_;
    CallNode* const known = mayBeKnown ? slotOf(keyOf(parent, instrument)).node : nullptr;
    return known ? known : addNode(parent, instrument, start);
}

bool isCalledBy(const CallNode& node, const Opaque* instrument) noexcept {
    const CallNode* path = &node;
    while (path && path->instrument != instrument)
        path = path->parent;
    return path != nullptr;
}

CallNode* CallingContextTree::addNode(CallNode& parent, const Opaque* instrument,
                                      std::int64_t start) noexcept {
    const std::uint32_t count = std::max(nodeCount_.load(std::memory_order_relaxed), 1u);
    const auto place = static_cast<std::size_t>(std::ranges::find(parent.childKeys, 0u) -
                                                parent.childKeys.begin());
    const bool isBeyond = place == CallNode::children || mayHaveInTable(parent);
    if (!nodes_.provide(count) || (isBeyond && !provideSlot()))
        return nullptr;
    InstrumentCalls* const all = callsOf(instrument);
    if (!all)
        return nullptr;
    CallNode& node = nodes_[count];
    node.instrument = instrument;
    node.parent = &parent;
    node.all = all;
    node.number = count;
    node.depth = static_cast<std::uint16_t>(parent.depth + 1);
    node.isNested = isCalledBy(parent, instrument);
    node.isBelow = node.depth > deepest;
    node.firstStart = start;
    node.min.store(INT64_MAX, std::memory_order_relaxed);
    node.max.store(INT64_MIN, std::memory_order_relaxed);
    if (isBeyond) {
        const std::uint64_t key = keyOf(parent, instrument);
        slotOf(key) = {key, &node};
    } else {
        parent.childKeys[place] = CallNode::keyOf(instrument);
        parent.childNodes[place] = &node;
    }
    // Pairs with the acquire in forEach.
    nodeCount_.store(count + 1, std::memory_order_release);
    return &node;
}

InstrumentCalls* CallingContextTree::callsOf(const Opaque* instrument) noexcept {
    if (!callsByNumber_.provideUpTo(instrument->id))
        return nullptr;
    InstrumentCalls*& calls = callsByNumber_[instrument->id];
    if (!calls) {
        const std::uint32_t count = instrumentCount_.load(std::memory_order_relaxed);
        if (!instruments_.provide(count))
            return nullptr;
        calls = &instruments_[count];
        calls->instrument = instrument;
        // Pairs with the acquire in forEachDurations.
        instrumentCount_.store(count + 1, std::memory_order_release);
    }
    return calls;
}

/// Where the child stands, or would.
CallingContextTree::Slot& CallingContextTree::slotOf(std::uint64_t key) const noexcept {
    std::size_t place = key * 0x9e37'79b9'7f4a'7c15 >> 32;
    for (;; ++place) {
        Slot& slot = slots_[place & (slotCount_ - 1)];
        if (slot.key == key || slot.key == 0)
            return slot;
    }
}

/// Has room for one more node in the table.
bool CallingContextTree::provideSlot() noexcept {
    if (++slotsUsed_ * 2 < slotCount_)
        return true;
    const std::size_t count = std::max(slotCount_ * 2, firstSlots);
    auto* const larger = static_cast<Slot*>(mapMemory(count * sizeof(Slot)));
    if (!larger)
        return false;
    const std::span<Slot> before(std::exchange(slots_, larger), std::exchange(slotCount_, count));
    for (const Slot& slot : before)
        if (slot.key != 0)
            slotOf(slot.key) = slot;
    if (before.data())
        unmapMemory(before.data(), before.size_bytes());
    return true;
}

}  // namespace instrument::detail
