#include "zandor/performance/calling_context_tree.hpp"

#include <algorithm>

#include "zandor/instrument/fences.hpp"

namespace instrument::detail {

namespace {

constexpr std::uint32_t deepest = 1024;
constexpr std::uint32_t none = ~0u;
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
    while (const std::uint32_t depth = depth_.load(std::memory_order_relaxed)) {
        Frame& top = frames_[depth - 1];
        nodes_[top.node.load(std::memory_order_relaxed)].open = 0;
        top.word.store(takenBit, std::memory_order_relaxed);
        depth_.store(depth - 1, std::memory_order_relaxed);
    }
    source_.store(source, std::memory_order_relaxed);
}

bool CallingContextTree::start(const Opaque* instrument, std::uint64_t serial,
                               std::int64_t time) noexcept {
    note(time);
    popEnded();
    std::uint32_t depth = depth_.load(std::memory_order_relaxed);
    if (depth == frames_.capacity) [[unlikely]] {
        setSource(source());  // starts that nobody ever stops
        depth = 0;
    }
    if (!frames_.provide(depth)) [[unlikely]]
        return false;
    const std::uint32_t parent =
        depth == 0 ? 0 : frames_[depth - 1].node.load(std::memory_order_relaxed);
    const std::uint32_t number = childOf(parent, instrument, time);
    if (number == none) [[unlikely]]
        return false;
    CallNode& node = nodes_[number];
    Frame& frame = frames_[depth];
    frame.isNested = node.isNested || (node.depth > deepest && node.open > 0);
    ++node.open;
    frame.inside = 0;
    frame.takenSerial.store(0, std::memory_order_relaxed);
    frame.start.store(time, std::memory_order_relaxed);
    frame.node.store(number, std::memory_order_relaxed);
    // Pairs with the acquire of those who take the call: with the word come start and node.
    frame.word.store(serial << 1, std::memory_order_release);
    depth_.store(depth + 1, std::memory_order_relaxed);
    return true;
}

bool CallingContextTree::stop(std::uint64_t serial, std::int64_t time) noexcept {
    note(time);
    const std::uint32_t index = frameOf(serial);
    if (index == none || !takeOwn(frames_[index], serial)) [[unlikely]]
        return false;
    end(index, time);
    popEnded();
    return true;
}

/// Of the open calls the one of this serial; none where there is none.
[[gnu::always_inline]] inline std::uint32_t CallingContextTree::frameOf(
    std::uint64_t serial) const noexcept {
    const std::uint32_t depth = depth_.load(std::memory_order_relaxed);
    const auto serialAt = [this](std::uint32_t index) {
        return frames_[index].word.load(std::memory_order_acquire) >> 1;
    };
    if (depth == 0)
        return none;
    if (serialAt(depth - 1) == serial) [[likely]]
        return depth - 1;
    std::uint32_t low = 0;
    for (std::uint32_t high = depth; low < high;) {
        const std::uint32_t middle = low + (high - low) / 2;
        if (serialAt(middle) < serial)
            low = middle + 1;
        else
            high = middle;
    }
    return low < depth && serialAt(low) == serial ? low : none;
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
    const std::uint32_t index = frameOf(serial);
    if (index == none)
        return std::nullopt;
    Frame& frame = frames_[index];
    // Read before the call is taken: afterwards its place may be another's. If it is another's
    // already, what was read is of no use, and nothing is taken.
    const std::int64_t start = frame.start.load(std::memory_order_relaxed);
    const std::uint32_t number = frame.node.load(std::memory_order_relaxed);
    if (!takeForeign(frame, serial))
        return std::nullopt;
    const CallNode& node = nodes_[number];
    return TakenCall{node.instrument, start, node.isNested};
}

bool CallingContextTree::addTaken(const TakenCall& call, std::int64_t stop) noexcept {
    const std::uint32_t number = childOf(0, call.instrument, call.start);
    if (number == none)
        return false;
    count(nodes_[number], {stop - call.start, 0, call.isNested});
    return true;
}

[[gnu::always_inline]] inline void CallingContextTree::end(std::uint32_t index,
                                                           std::int64_t time) noexcept {
    const Frame& frame = frames_[index];
    const std::int64_t duration = time - frame.start.load(std::memory_order_relaxed);
    if (index > 0)
        frames_[index - 1].inside += duration;
    count(nodes_[frame.node.load(std::memory_order_relaxed)],
          {duration, frame.inside, frame.isNested});
}

/// Takes those that were stopped off the stack, down to the first that is open.
[[gnu::always_inline]] inline void CallingContextTree::popEnded() noexcept {
    std::uint32_t depth = depth_.load(std::memory_order_relaxed);
    while (depth > 0 && (frames_[depth - 1].word.load(std::memory_order_relaxed) & takenBit)) {
        --depth;
        --nodes_[frames_[depth].node.load(std::memory_order_relaxed)].open;
    }
    depth_.store(depth, std::memory_order_relaxed);
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
    node.durations->add(duration);
    node.calls.store(calls + 1, std::memory_order_relaxed);
}

[[gnu::always_inline]] inline std::uint32_t CallingContextTree::childOf(
    std::uint32_t parent, const Opaque* instrument, std::int64_t start) noexcept {
    if (slotCount_ > 0) [[likely]] {
        // Beyond the deepest level all are children of the path up to there.
        if (nodes_[parent].depth > deepest) [[unlikely]]
            parent = nodes_[parent].parent;
        std::uint32_t& last = nodes_[parent].lastChild;
        if (last != 0 && nodes_[last].instrument == instrument) [[likely]]
            return last;
        if (const std::uint32_t known = slots_[slotOf(parent, instrument)])
            return last = known;
    }
    return addNode(parent, instrument, start);
}

std::uint32_t CallingContextTree::addNode(std::uint32_t parent, const Opaque* instrument,
                                          std::int64_t start) noexcept {
    std::uint32_t count = nodeCount_.load(std::memory_order_relaxed);
    if (count == 0) {
        if (!nodes_.provide(0))
            return none;
        count = 1;
    }
    if ((count * 2 >= slotCount_ && !growSlots()) || !nodes_.provide(count))
        return none;
    DurationHistogram* const durations = durationsOf(instrument);
    if (!durations)
        return none;
    CallNode& node = nodes_[count];
    node.durations = durations;
    node.instrument = instrument;
    node.parent = parent;
    node.depth = nodes_[parent].depth + 1;
    node.isNested = isInside(parent, instrument);
    node.firstStart = start;
    slots_[slotOf(parent, instrument)] = count;
    nodes_[parent].lastChild = count;
    // Pairs with the acquire in forEach.
    nodeCount_.store(count + 1, std::memory_order_release);
    return count;
}

DurationHistogram* CallingContextTree::durationsOf(const Opaque* instrument) noexcept {
    if (!durationsPlaces_.provideUpTo(instrument->id))
        return nullptr;
    std::uint32_t& place = durationsPlaces_[instrument->id];
    if (place == 0) {
        const std::uint32_t count = durationsCount_.load(std::memory_order_relaxed);
        if (!durations_.provide(count))
            return nullptr;
        durations_[count].instrument = instrument;
        // Pairs with the acquire in forEachDurations.
        durationsCount_.store(count + 1, std::memory_order_release);
        place = count + 1;
    }
    return &durations_[place - 1].histogram;
}

bool CallingContextTree::isInside(std::uint32_t node, const Opaque* instrument) const noexcept {
    while (node != 0 && nodes_[node].instrument != instrument)
        node = nodes_[node].parent;
    return node != 0;
}

/// Where the child stands, or would.
std::size_t CallingContextTree::slotOf(std::uint32_t parent,
                                       const Opaque* instrument) const noexcept {
    const std::uint64_t key = std::uint64_t{parent} << 32 | instrument->id;
    std::size_t slot = key * 0x9e37'79b9'7f4a'7c15 >> 32;
    for (;; ++slot) {
        const std::uint32_t node = slots_[slot &= slotCount_ - 1];
        if (node == 0 || (nodes_[node].parent == parent && nodes_[node].instrument == instrument))
            return slot;
    }
}

bool CallingContextTree::growSlots() noexcept {
    const std::size_t count = std::max(slotCount_ * 2, firstSlots);
    auto* const larger = static_cast<std::uint32_t*>(mapMemory(count * sizeof *slots_));
    if (!larger)
        return false;
    if (slots_)
        unmapMemory(slots_, slotCount_ * sizeof *slots_);
    slots_ = larger;
    slotCount_ = count;
    const std::uint32_t nodes = nodeCount_.load(std::memory_order_relaxed);
    for (std::uint32_t node = 1; node < nodes; ++node)
        slots_[slotOf(nodes_[node].parent, nodes_[node].instrument)] = node;
    return true;
}

}  // namespace instrument::detail
