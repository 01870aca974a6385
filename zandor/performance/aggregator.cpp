#include "zandor/performance/aggregator.hpp"

namespace instrument {

ExternalEventsAggregator::ExternalEventsAggregator() noexcept = default;

ExternalEventsAggregator::~ExternalEventsAggregator() {
    stop();
}

void ExternalEventsAggregator::start() {
    started_.store(true, std::memory_order_relaxed);
}

void ExternalEventsAggregator::stop() {
    collectEvents();
    started_.store(false, std::memory_order_relaxed);
}

void ExternalEventsAggregator::collectEvents() {}

void ExternalEventsAggregator::refreshActiveClients() {}

}  // namespace instrument
