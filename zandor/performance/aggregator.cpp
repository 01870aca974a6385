#include "zandor/performance/aggregator.hpp"

#include <algorithm>
#include <exception>
#include <new>
#include <string>
#include <utility>

#include "zandor/instrument/fork_private.hpp"
#include "zandor/instrument/listener_data.hpp"
#include "zandor/performance/external_host.hpp"
#include "zandor/runtime/console.hpp"

namespace instrument {

using detail::ExternalHost;
using detail::Locked;

struct ExternalEventsAggregator::ProcessOwn {
    detail::Lock lock;
    bool isKnown = false;  ///< the host, if there is one, is this process's
};

namespace {

/// Where nothing waits for us: the console may need other locks.
void sayLines(ExternalHost& host) {
    for (const std::string& line : host.takeLines())
        utPrintf("%s\n", line.c_str());
}

}  // namespace

ExternalEventsAggregator::ExternalEventsAggregator() noexcept : own_(nullptr) {
    if (void* memory = detail::mapMemory(sizeof(ProcessOwn))) {
        detail::wipeOnFork(memory, sizeof(ProcessOwn));
        own_ = ::new (memory) ProcessOwn;
    }
}

ExternalEventsAggregator::~ExternalEventsAggregator() {
    try {
        stop();
    } catch (...) {
        // Nobody can be told in a destructor.
    }
    if (own_) {
        detail::forgetWiping(own_);
        detail::unmapMemory(own_, sizeof(ProcessOwn));
    }
}

/// A child leaves its parent's host alone: its thread is not here, and its locks may be held.
void ExternalEventsAggregator::abandonParents() const noexcept {
    if (std::exchange(own_->isKnown, true) || !host_)
        return;
    // Kept for ever: its destructor would wait for the thread.
    static_cast<void>(std::make_unique<HostPtr>(std::move(host_)).release());
}

ExternalEventsAggregator::HostPtr ExternalEventsAggregator::host() const {
    if (!own_)
        return nullptr;
    const Locked locked(own_->lock);
    abandonParents();
    return host_;
}

void ExternalEventsAggregator::start() {
    start(std::chrono::milliseconds(0));
}

void ExternalEventsAggregator::startCollecting(std::chrono::milliseconds period) {
    start(std::max(period, std::chrono::milliseconds(1)));
}

void ExternalEventsAggregator::start(std::chrono::milliseconds collectPeriod) {
    if (!own_)
        throw std::bad_alloc();
    const Locked locked(own_->lock);
    abandonParents();
    if (!host_)
        host_ = std::make_shared<ExternalHost>(collectPeriod);
}

void ExternalEventsAggregator::stop() {
    const HostPtr stopped = host();
    if (!stopped)
        return;
    {
        const Locked locked(own_->lock);
        if (host_ == stopped)
            host_.reset();
    }
    const std::exception_ptr failure = stopped->finish();
    sayLines(*stopped);
    if (failure)
        std::rethrow_exception(failure);
}

void ExternalEventsAggregator::collectEvents() {
    const HostPtr started = host();
    // Inside a listener nothing would be delivered.
    if (!started || ListenerData::isInsideListener())
        return;
    const auto failure = started->collect();
    sayLines(*started);
    if (failure)
        std::rethrow_exception(failure);
}

void ExternalEventsAggregator::refreshActiveClients() {
    const HostPtr started = host();
    if (!started || ListenerData::isInsideListener())
        return;
    started->refresh();
    sayLines(*started);
}

bool ExternalEventsAggregator::isStarted() const noexcept {
    return host() != nullptr;
}

}  // namespace instrument
