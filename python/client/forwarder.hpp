// Sends what a process's own instruments produce to aggregators, as a client's events.
#pragma once

#include <atomic>
#include <cstddef>

#include "zandor/client/client.h"
#include "zandor/instrument/fork_private.hpp"
#include "zandor/instrument/listener.hpp"

namespace vantrace {

class Forwarder : public instrument::InstrumentListener {
  public:
    explicit Forwarder(zandor_client* client) noexcept : client_(client) {}
    ~Forwarder() override;

    void onInstant(const instrument::Opaque*, const instrument::EventContext&,
                   instrument::EventId) override;
    void onStart(const instrument::Opaque*, const instrument::EventContext&,
                 instrument::EventId) override;
    void onStop(const instrument::Opaque*, const instrument::EventContext&,
                instrument::EventId) override;
    // What came from other processes is theirs to send.
    void onInstantAt(const instrument::Opaque*, const instrument::EventContext&,
                     instrument::EventId, std::int64_t) override {}
    void onStartAt(const instrument::Opaque*, const instrument::EventContext&, instrument::EventId,
                   std::int64_t) override {}
    void onStopAt(const instrument::Opaque*, const instrument::EventContext&, instrument::EventId,
                  std::int64_t) override {}

  private:
    /// An event that was started and not yet stopped. Free while `source` is 0.
    struct Open {
        std::atomic<std::uint64_t> source;
        std::atomic<std::uint64_t> serial;
        zandor_event event;
    };
    static constexpr std::size_t places = 1 << 14;
    static constexpr std::size_t probes = 16;
    /// Found without a lock by any thread; empty in a child.
    struct OpenEvents {
        Open all[places];
    };

    void keep(instrument::EventId id, zandor_event event) noexcept;
    bool take(instrument::EventId id, zandor_event& event) noexcept;
    Open& placeOf(instrument::EventId id, std::size_t probe) const noexcept;

    zandor_client* client_;
    instrument::detail::ForkPrivate<OpenEvents> open_;
};

}  // namespace vantrace
