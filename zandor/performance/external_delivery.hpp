// Hands the events of one external client to the listeners: its threads as sources, its names under
// the same controls, its stops with what their starts said.
#pragma once

#include <cstdint>
#include <exception>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "zandor/instrument/context.hpp"
#include "zandor/instrument/tick_conversion.hpp"
#include "zandor/performance/external_ring.hpp"

namespace instrument::detail {

/// What became of the events that were read. Each edge (start, stop or instant) is one.
struct DeliveryAccount {
    std::uint64_t delivered = 0;
    std::uint64_t disabled = 0;   ///< by the controls; a stop goes with its start
    std::uint64_t unheard = 0;    ///< there was no listener
    std::uint64_t unmatched = 0;  ///< stops of events that were not, or no longer, known
};

/// Ticks of a client's clock as this process's times. Of one ring, whose times are in order.
class ZANDOR_PERFORMANCE_API ExternalTimes {
  public:
    /// Throws BrokenRules for a clock that this machine does not have.
    explicit ExternalTimes(wire::Clock clock);
    /// To be called after events were fetched: none of them is later.
    void takeNow() noexcept;
    std::int64_t at(std::uint64_t untrustedTicks) const;

  private:
    wire::Clock clock_;
    std::uint64_t nowTicks_ = 0;
    clock::TickConversion toNanoseconds_;
};

/// An event between its start and its stop.
struct OpenExternalEvent {
    std::uint64_t serial = 0;
    const Opaque* instrument = nullptr;
    ContextSet context;
    bool isDelivered = false;
    bool isOver = false;
};

/// A thread of the client.
class ExternalThread {
  public:
    ExternalThread(std::string_view processName, std::uint64_t processId, const ExternalRing& ring);
    ~ExternalThread();
    ExternalThread(const ExternalThread&) = delete;
    ExternalThread& operator=(const ExternalThread&) = delete;

    std::uint64_t source() const noexcept { return source_; }
    /// A time that does not lie before the ones given until now.
    std::int64_t inOrder(std::int64_t time) noexcept;
    /// Throws BrokenRules unless serials rise.
    void takeSerial(std::uint64_t untrustedSerial);
    OpenExternalEvent& open(std::uint64_t serial, const Opaque* instrument);
    /// Null where it is not open.
    OpenExternalEvent* find(std::uint64_t serial) noexcept;
    void close(OpenExternalEvent& event) noexcept;
    bool hasOpen() const noexcept { return openCount_ != 0; }

  private:
    void forgetOver();

    std::uint64_t source_;
    std::uint64_t lastSerial_ = 0;
    std::int64_t lastTime_ = INT64_MIN;
    std::vector<OpenExternalEvent> open_;  ///< by serial
    std::size_t openCount_ = 0;            ///< those that are not over
};

class ZANDOR_PERFORMANCE_API ExternalDelivery {
  public:
    ExternalDelivery(std::string name, std::uint64_t processId);
    ~ExternalDelivery();
    ExternalDelivery(const ExternalDelivery&) = delete;
    ExternalDelivery& operator=(const ExternalDelivery&) = delete;

    /// Throws BrokenRules where a ring of that thread is there already.
    void begin(const ExternalRing& ring);
    /// Nothing more comes from that ring.
    void end(const ExternalRing& ring);
    /// Throws BrokenRules. An exception of a listener is kept for `takeFailure`.
    void deliver(const ExternalRing& ring, const ExternalTimes& times, const RingEvent& event);
    /// After all rings were read. A stop may be read before a start on another thread that came
    /// before it, but not before the next round.
    void finishRound();
    /// A listener's exception, the first since the last call.
    std::exception_ptr takeFailure() noexcept { return std::exchange(failure_, nullptr); }

    const std::string& name() const noexcept { return name_; }
    std::uint64_t processId() const noexcept { return processId_; }
    std::size_t threads() const noexcept { return threads_.size(); }
    const DeliveryAccount& account() const noexcept { return account_; }

  private:
    struct Thread : ExternalThread {
        using ExternalThread::ExternalThread;
        bool hasRing = true;
    };
    struct EarlyStop {
        std::uint32_t thread;
        std::uint64_t serial;
        std::int64_t time;
        bool isOld;
    };

    void deliverStart(ExternalThread& thread, const RingEvent& event, std::int64_t time);
    void deliverInstant(ExternalThread& thread, const RingEvent& event, std::int64_t time);
    bool deliverStop(std::uint32_t thread, std::uint64_t serial, std::int64_t time);
    void takeContext(const RingEvent& event);
    template <class Call>
    void tell(Call call);

    std::string name_;
    std::uint64_t processId_;
    std::map<std::uint32_t, Thread> threads_;
    Thread* latest_ = nullptr;  ///< of the events that were delivered last
    std::uint32_t latestNumber_ = 0;
    std::vector<EarlyStop> earlyStops_;
    ContextSet context_;
    DeliveryAccount account_;
    std::exception_ptr failure_;
};

}  // namespace instrument::detail
