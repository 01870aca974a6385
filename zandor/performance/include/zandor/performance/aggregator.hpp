// The aggregator of events from other processes.
//
//   instrument::ExternalEventsAggregator aggregator;
//   aggregator.start();                       // clients find it, and produce from now on
//   for (...) aggregator.collectEvents();     // what they published goes to the listeners
//   aggregator.stop();
//
//   client's threads -> rings -> collectEvents -> controls -> listeners: recorder, counter, ...
//
// A client is a process that uses <zandor/client/client.h>. Its events come with their own times
// and sources, thread by thread in order; between threads the recorder sorts them. They are under
// the same controls as the process's own.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>

#include "zandor/instrument/lock.hpp"
#include "zandor/performance/export.hpp"

namespace instrument {

namespace detail {
class ExternalHost;
}

/// From any thread. A child after fork has none that is started. Operations do nothing where the
/// aggregator is not started; inside a listener they leave the events where they are.
class ZANDOR_PERFORMANCE_API ExternalEventsAggregator {
  public:
    ExternalEventsAggregator() noexcept;
    /// Stops first.
    ~ExternalEventsAggregator();
    ExternalEventsAggregator(const ExternalEventsAggregator&) = delete;
    ExternalEventsAggregator& operator=(const ExternalEventsAggregator&) = delete;

    /// Listens, and grants clients the lease by which they produce: a thread of its own renews it,
    /// and lets clients in. Does nothing when started. Throws std::runtime_error where there is no
    /// runtime folder of the user's own, std::system_error where the system refuses.
    void start();
    /// The same, and that thread collects, too, each period: for hosts that do not poll.
    void startCollecting(std::chrono::milliseconds period);
    /// Ends the lease, takes in what was published, and lets go of the clients.
    void stop();

    /// Takes in what clients published since the last time. When it returns, all that was published
    /// when it began went to the listeners; an exception of one of them comes out in the end.
    void collectEvents();
    /// Takes in new clients and sees which ones are gone; what those published stays for
    /// collecting.
    void refreshActiveClients();

    bool isStarted() const noexcept;

  private:
    using HostPtr = std::shared_ptr<detail::ExternalHost>;
    struct ProcessOwn;

    void start(std::chrono::milliseconds collectPeriod);
    void abandonParents() const noexcept;
    HostPtr host() const;

    mutable HostPtr host_;
    ProcessOwn* own_;  ///< all-zero in a child after fork
};

}  // namespace instrument
