#include "zandor/performance/external_delivery.hpp"

#include <algorithm>
#include <cstring>

#include "zandor/client/test_point.h"
#include "zandor/instrument/clock.hpp"
#include "zandor/instrument/listeners.hpp"
#include "zandor/instrument/source.hpp"

namespace instrument::detail {

namespace {

constexpr std::size_t mostOpenEvents = 1 << 16;  // of a thread; the oldest is forgotten then
constexpr std::size_t mostEarlyStops = 1 << 16;

bool isEnabledFor(const Opaque* handle, const ContextSet& context) {
    // Relaxed: the two flags are switches, and publish nothing besides themselves.
    const bool enabled = handle->enabled.load(std::memory_order_relaxed);
    if (context.empty() || !handle->hasContextRules.load(std::memory_order_relaxed))
        return enabled;
    const Enabled verdict = ControlElement::of(handle).getContextEnabledImpl(context);
    return verdict == Enabled::noRule ? enabled : verdict == Enabled::enabled;
}

}  // namespace

ExternalTimes::ExternalTimes(wire::Clock clock) : clock_(clock) {
    if (clock == wire::Clock::tsc && std::strcmp(clock::name(), "tsc") != 0)
        throw BrokenRules("a clock that is not this machine's");
    takeNow();
}

void ExternalTimes::takeNow() noexcept {
    nowTicks_ =
        clock_ == wire::Clock::tsc ? clock::ticks() : static_cast<std::uint64_t>(clock::now());
}

std::int64_t ExternalTimes::at(std::uint64_t untrustedTicks) const {
    const std::uint64_t ticks = std::min(untrustedTicks, nowTicks_);
    return clock_ == wire::Clock::tsc ? toNanoseconds_(ticks) : static_cast<std::int64_t>(ticks);
}

ExternalThread::ExternalThread(std::string_view processName, std::uint64_t processId,
                               const ExternalRing& ring)
    : source_(addExternalSource(processName, ring.threadName(), processId, ring.threadId())) {}

ExternalThread::~ExternalThread() {
    removeExternalSource(source_);
}

std::int64_t ExternalThread::inOrder(std::int64_t time) noexcept {
    return lastTime_ = std::max(time, lastTime_);
}

void ExternalThread::takeSerial(std::uint64_t untrustedSerial) {
    if (untrustedSerial <= lastSerial_ || untrustedSerial == UINT64_MAX)
        throw BrokenRules("events out of order");
    lastSerial_ = untrustedSerial;
}

OpenExternalEvent& ExternalThread::open(std::uint64_t serial, const Opaque* instrument) {
    if (open_.size() >= mostOpenEvents)
        forgetOver();
    OpenExternalEvent& event = open_.emplace_back();
    event.serial = serial;
    event.instrument = instrument;
    ++openCount_;
    return event;
}

void ExternalThread::forgetOver() {
    std::erase_if(open_, [](const OpenExternalEvent& event) { return event.isOver; });
    if (open_.size() < mostOpenEvents / 2)
        return;
    const auto half = open_.begin() + static_cast<std::ptrdiff_t>(open_.size() / 2);
    open_.erase(open_.begin(), half);
    openCount_ = open_.size();
}

OpenExternalEvent* ExternalThread::find(std::uint64_t serial) noexcept {
    if (open_.empty())
        return nullptr;
    auto found = open_.end() - 1;
    if (found->serial != serial)
        found = std::ranges::lower_bound(open_, serial, {}, &OpenExternalEvent::serial);
    return found != open_.end() && found->serial == serial && !found->isOver ? &*found : nullptr;
}

void ExternalThread::close(OpenExternalEvent& event) noexcept {
    event.isOver = true;
    --openCount_;
    while (!open_.empty() && open_.back().isOver)
        open_.pop_back();
}

ExternalDelivery::ExternalDelivery(std::string name, std::uint64_t processId)
    : name_(std::move(name)), processId_(processId) {}

ExternalDelivery::~ExternalDelivery() = default;

void ExternalDelivery::begin(const ExternalRing& ring) {
    const auto [place, isNew] =
        threads_.try_emplace(ring.thread(), std::string_view(name_), processId_, ring);
    if (!isNew && place->second.hasRing)
        throw BrokenRules("two rings of one thread");
    place->second.hasRing = true;
}

void ExternalDelivery::end(const ExternalRing& ring) {
    const auto place = threads_.find(ring.thread());
    if (place == threads_.end())
        return;
    place->second.hasRing = false;
    if (place->second.hasOpen())
        return;  // a stop may come from another thread
    threads_.erase(place);
    latest_ = nullptr;
}

template <class Call>
void ExternalDelivery::tell(Call call) {
    ++account_.delivered;
    try {
        call();
    } catch (const std::exception&) {
        if (!failure_)
            failure_ = std::current_exception();
    }
}

void ExternalDelivery::deliver(const ExternalRing& ring, const ExternalTimes& times,
                               const RingEvent& event) {
    if (!latest_ || latestNumber_ != ring.thread()) {
        latest_ = &threads_.at(ring.thread());
        latestNumber_ = ring.thread();
    }
    Thread& thread = *latest_;
    const std::int64_t time = thread.inOrder(times.at(event.ticks));
    ZANDOR_TEST_POINT("host.event");
    if (event.kind != wire::RecordKind::stop) {
        thread.takeSerial(event.serial);
        takeContext(event);
        if (event.kind == wire::RecordKind::start)
            return deliverStart(thread, event, time);
        return deliverInstant(thread, event, time);
    }
    if (deliverStop(event.thread, event.serial, time))
        return;
    if (event.thread != ring.thread() && earlyStops_.size() < mostEarlyStops)
        earlyStops_.push_back({event.thread, event.serial, time, false});
    else
        ++account_.unmatched;
}

void ExternalDelivery::takeContext(const RingEvent& event) {
    context_.clear();
    for (const RingEntry& entry : event.context)
        context_.insert({entry.key, std::string(entry.value)});
}

void ExternalDelivery::deliverStart(ExternalThread& thread, const RingEvent& event,
                                    std::int64_t time) {
    OpenExternalEvent& open = thread.open(event.serial, event.instrument);
    if (!listeners.anyActive()) {
        ++account_.unheard;
        return;
    }
    if (!isEnabledFor(event.instrument, context_)) {
        ++account_.disabled;
        return;
    }
    open.isDelivered = true;
    if (!context_.empty())
        open.context = context_;
    tell([&] {
        listeners.onEventStartAt(event.instrument, std::move(context_),
                                 {thread.source(), event.serial}, time);
    });
}

void ExternalDelivery::deliverInstant(ExternalThread& thread, const RingEvent& event,
                                      std::int64_t time) {
    if (!listeners.anyActive()) {
        ++account_.unheard;
        return;
    }
    if (!isEnabledFor(event.instrument, context_)) {
        ++account_.disabled;
        return;
    }
    tell([&] {
        listeners.onEventInstantAt(event.instrument, std::move(context_),
                                   {thread.source(), event.serial}, time);
    });
}

bool ExternalDelivery::deliverStop(std::uint32_t number, std::uint64_t serial, std::int64_t time) {
    const auto place = number == latestNumber_ && latest_ ? threads_.end() : threads_.find(number);
    Thread* const thread = number == latestNumber_ && latest_ ? latest_
                           : place != threads_.end()          ? &place->second
                                                              : nullptr;
    OpenExternalEvent* const open = thread ? thread->find(serial) : nullptr;
    if (!open)
        return false;
    if (!open->isDelivered) {
        ++account_.disabled;
    } else if (!listeners.anyActive()) {
        ++account_.unheard;
    } else {
        tell([&] {
            listeners.onEventStopAt(open->instrument, std::move(open->context),
                                    {thread->source(), serial}, time);
        });
    }
    thread->close(*open);
    return true;
}

void ExternalDelivery::finishRound() {
    std::erase_if(earlyStops_, [this](EarlyStop& stop) {
        if (deliverStop(stop.thread, stop.serial, stop.time))
            return true;
        account_.unmatched += stop.isOld;
        return std::exchange(stop.isOld, true);
    });
    std::erase_if(threads_, [](const auto& entry) {
        return !entry.second.hasRing && !entry.second.hasOpen();
    });
    latest_ = nullptr;
}

}  // namespace instrument::detail
