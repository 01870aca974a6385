// The aggregator of events from other processes.
#pragma once

#include <atomic>

#include "zandor/performance/export.hpp"

namespace instrument {

/// Collects the events of external clients and hands them to the process's listeners. With no
/// client there is nothing to collect, and every operation returns at once. `start` of one that is
/// started and `stop` of one that is not do nothing. From any thread.
class ZANDOR_PERFORMANCE_API ExternalEventsAggregator {
  public:
    ExternalEventsAggregator() noexcept;
    /// Stops first.
    ~ExternalEventsAggregator();
    ExternalEventsAggregator(const ExternalEventsAggregator&) = delete;
    ExternalEventsAggregator& operator=(const ExternalEventsAggregator&) = delete;

    void start();
    void stop();
    /// Takes in what clients published since the last time.
    void collectEvents();
    /// Takes in new clients and lets go of dead ones.
    void refreshActiveClients();

    bool isStarted() const noexcept { return started_.load(std::memory_order_relaxed); }

  private:
    std::atomic<bool> started_{false};  // a state to look at: relaxed
};

}  // namespace instrument
