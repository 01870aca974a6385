#include "zandor/performance/calling_context_tree.hpp"

#include <algorithm>
#include <span>
#include <utility>

#include "zandor/instrument/fences.hpp"

namespace instrument::detail {

namespace {

constexpr std::uint32_t deepest = 1024;
constexpr std::size_t firstSlots = 1024;

template <class Number>
void increase(std::atomic<Number>& sum, Number by) noexcept {
    sum.store(sum.load(std::memory_order_relaxed) + by, std::memory_order_relaxed);
}

}  // namespace

CallingContextTree::~CallingContextTree() {
    if (slots_)
        unmapMemory(slots_, slotCount_ * sizeof *slots_);
}

void CallingContextTree::setSource(std::uint64_t source) noexcept {
    while (top_) {
        top_->word.store(takenBit, std::memory_order_relaxed);
        pop();
    }
    source_.store(source, std::memory_order_relaxed);
}

bool CallingContextTree::start(const Opaque* instrument, std::uint64_t serial,
                               std::int64_t time) noexcept {
    note(time);
    popEnded();
    Frame* const frame = nextFrame();
    if (!frame) [[unlikely]]
        return false;
    CallNode* const parent = top_ ? top_->node.load(std::memory_order_relaxed) : &root_;
    CallNode* const node = childOf(parent, instrument, time);
    if (!node) [[unlikely]]
        return false;
    frame->isNested = node->isNested || (node->depth > deepest && node->all->open > 0);
    ++node->all->open;
    frame->below = top_;
    frame->inside = 0;
    frame->takenSerial.store(0, std::memory_order_relaxed);
    frame->start.store(time, std::memory_order_relaxed);
    frame->node.store(node, std::memory_order_relaxed);
    // Pairs with the acquire of those who take the call: with the word come start and node.
    frame->word.store(serial << 1, std::memory_order_release);
    top_ = frame;
    depth_.store(depth_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    return true;
}

bool CallingContextTree::stop(std::uint64_t serial, std::int64_t time) noexcept {
    note(time);
    const bool isTop = top_ && top_->word.load(std::memory_order_relaxed) >> 1 == serial;
    Frame* const frame = isTop ? top_ : frameOf(serial);
    if (!frame || !takeOwn(*frame, serial)) [[unlikely]]
        return false;
    end(*frame, time);
    popEnded();
    return true;
}

/// The place above the innermost call; null when the system gives no memory.
[[gnu::always_inline]] inline CallingContextTree::Frame* CallingContextTree::nextFrame() noexcept {
    const std::uint32_t depth = depth_.load(std::memory_order_relaxed);
    if (depth % framesAtOnce != 0) [[likely]]
        return top_ + 1;
    return depth == 0 && bottom_ ? bottom_ : provideFrame();
}

[[gnu::noinline]] CallingContextTree::Frame* CallingContextTree::provideFrame() noexcept {
    if (depth_.load(std::memory_order_relaxed) == frames_.capacity)
        setSource(source());  // starts that nobody ever stops
    const std::uint32_t depth = depth_.load(std::memory_order_relaxed);
    if (!frames_.provide(depth))
        return nullptr;
    bottom_ = &frames_[0];
    return &frames_[depth];
}

/// Of the open calls the one of this serial; null where there is none. From any thread.
CallingContextTree::Frame* CallingContextTree::frameOf(std::uint64_t serial) const noexcept {
    const auto serialAt = [this](std::uint32_t index) {
        return frames_[index].word.load(std::memory_order_acquire) >> 1;
    };
    const std::uint32_t depth = depth_.load(std::memory_order_relaxed);
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

/// Whoever takes a call counts it: its own thread or another one.
[[gnu::always_inline]] inline bool CallingContextTree::takeOwn(Frame& frame,
                                                               std::uint64_t serial) noexcept {
    // Pairs with the release at the end of a take: then its mark is seen.
    const std::uint64_t takes = takes_.load(std::memory_order_acquire);
    const std::uint64_t open = serial << 1;
    if (frame.word.load(std::memory_order_relaxed) != open) [[unlikely]]
        return false;
    frame.word.store(open | takenBit, std::memory_order_relaxed);
    // Pairs with the heavy fence in take: one of the two sees the other.
    lightFence();
    const bool isAlone = (takes & 1) == 0 && takes_.load(std::memory_order_relaxed) == takes;
    return isAlone || !wasTaken(frame, serial);
}

bool CallingContextTree::takeForeign(Frame& frame, std::uint64_t serial) noexcept {
    const Locked locked(takeLock_);
    takes_.fetch_add(1, std::memory_order_relaxed);
    // Pairs with the light fence in takeOwn.
    heavyFence();
    frame.takenSerial.store(serial, std::memory_order_relaxed);
    std::uint64_t open = serial << 1;
    const bool taken =
        frame.word.compare_exchange_strong(open, open | takenBit, std::memory_order_acq_rel);
    if (!taken)
        frame.takenSerial.store(0, std::memory_order_relaxed);
    // Pairs with the acquire in takeOwn.
    takes_.fetch_add(1, std::memory_order_release);
    return taken;
}

/// Known once no take is under way.
bool CallingContextTree::wasTaken(const Frame& frame, std::uint64_t serial) noexcept {
    const Locked locked(takeLock_);
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
    CallNode* const node = childOf(&root_, call.instrument, call.start);
    if (!node)
        return false;
    count(*node, {stop - call.start, 0, call.isNested});
    return true;
}

[[gnu::always_inline]] inline void CallingContextTree::end(Frame& frame,
                                                           std::int64_t time) noexcept {
    const std::int64_t duration = time - frame.start.load(std::memory_order_relaxed);
    if (frame.below)
        frame.below->inside += duration;
    count(*frame.node.load(std::memory_order_relaxed), {duration, frame.inside, frame.isNested});
}

/// Takes the innermost call off the stack.
[[gnu::always_inline]] inline void CallingContextTree::pop() noexcept {
    --top_->node.load(std::memory_order_relaxed)->all->open;
    top_ = top_->below;
    depth_.store(depth_.load(std::memory_order_relaxed) - 1, std::memory_order_relaxed);
}

/// Takes those that were stopped off the stack, down to the first that is open.
[[gnu::always_inline]] inline void CallingContextTree::popEnded() noexcept {
    while (top_ && top_->isEnded())
        pop();
}

[[gnu::always_inline]] inline void CallingContextTree::count(CallNode& node,
                                                             const EndedCall& call) noexcept {
    const std::uint64_t calls = node.calls.load(std::memory_order_relaxed);
    const std::int64_t duration = call.duration;
    if (calls == 0 || duration < node.min.load(std::memory_order_relaxed))
        node.min.store(duration, std::memory_order_relaxed);
    if (calls == 0 || duration > node.max.load(std::memory_order_relaxed))
        node.max.store(duration, std::memory_order_relaxed);
    if (!call.isNested)
        increase(node.total, duration);
    increase(node.self, duration - call.inside);
    node.all->durations.add(duration);
    node.calls.store(calls + 1, std::memory_order_relaxed);
}

[[gnu::always_inline]] inline CallNode* CallingContextTree::childOf(CallNode* parent,
                                                                    const Opaque* instrument,
                                                                    std::int64_t start) noexcept {
    // Beyond the deepest level all are children of the path up to there.
    if (parent->depth > deepest) [[unlikely]]
        parent = parent->parent;
    for (const CallNode::Child& child : parent->children)
        if (child.instrument == instrument->id && child.node != 0) [[likely]]
            return &nodes_[child.node];
    return findOrAdd(*parent, instrument, start);
}

[[gnu::noinline]] CallNode* CallingContextTree::findOrAdd(CallNode& parent,
                                                          const Opaque* instrument,
                                                          std::int64_t start) noexcept {
    const bool mayBeKnown = parent.children.back().node != 0 && slots_;
    const std::uint32_t known = mayBeKnown ? slotOf(parent, instrument) : 0;
    return known != 0 ? &nodes_[known] : addNode(parent, instrument, start);
}

CallNode* CallingContextTree::addNode(CallNode& parent, const Opaque* instrument,
                                      std::int64_t start) noexcept {
    const std::uint32_t count = std::max(nodeCount_.load(std::memory_order_relaxed), 1u);
    const auto free = std::ranges::find(parent.children, 0u, &CallNode::Child::node);
    const bool isBeyond = free == parent.children.end();
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
    node.isNested = &parent != &root_ && all->open > 0;
    node.firstStart = start;
    if (isBeyond)
        slotOf(parent, instrument) = count;
    else
        *free = {instrument->id, count};
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
std::uint32_t& CallingContextTree::slotOf(const CallNode& parent,
                                          const Opaque* instrument) const noexcept {
    const std::uint64_t key = std::uint64_t{parent.number} << 32 | instrument->id;
    std::size_t place = key * 0x9e37'79b9'7f4a'7c15 >> 32;
    for (;; ++place) {
        std::uint32_t& slot = slots_[place & (slotCount_ - 1)];
        if (slot == 0 || (nodes_[slot].parent == &parent && nodes_[slot].instrument == instrument))
            return slot;
    }
}

/// Has room for one more node in the table.
bool CallingContextTree::provideSlot() noexcept {
    if (++slotsUsed_ * 2 < slotCount_)
        return true;
    const std::size_t count = std::max(slotCount_ * 2, firstSlots);
    auto* const larger = static_cast<std::uint32_t*>(mapMemory(count * sizeof *slots_));
    if (!larger)
        return false;
    const std::span<std::uint32_t> before(std::exchange(slots_, larger),
                                          std::exchange(slotCount_, count));
    for (const std::uint32_t node : before)
        if (node != 0)
            slotOf(*nodes_[node].parent, nodes_[node].instrument) = node;
    if (before.data())
        unmapMemory(before.data(), before.size_bytes());
    return true;
}

}  // namespace instrument::detail
