// The listener that prints a line for each event.
#pragma once

#include <atomic>
#include <cstdint>

#include "zandor/instrument/listener.hpp"

namespace instrument {

class InstrumentLogger : public InstrumentListener {
  public:
    InstrumentLogger();
    ~InstrumentLogger() override;

    void onInstant(const Opaque* instrument, const EventContext& context, EventId id) override;
    void onStart(const Opaque* instrument, const EventContext& context, EventId id) override;
    void onStop(const Opaque* instrument, const EventContext& context, EventId id) override;
    void onInstantAt(const Opaque* instrument, const EventContext& context, EventId id,
                     std::int64_t time) override;
    void onStartAt(const Opaque* instrument, const EventContext& context, EventId id,
                   std::int64_t time) override;
    void onStopAt(const Opaque* instrument, const EventContext& context, EventId id,
                  std::int64_t time) override;

  private:
    using Printer = int (*)(const char* format, ...);

    void printTimed(const char* format, const Opaque* instrument, EventId id);
    void printAt(const char* format, const Opaque* instrument, EventId id, std::int64_t time);

    const Printer printer_;
    /// Of the latest timed line, in microseconds; 0 before the first. Relaxed: it orders nothing.
    std::atomic<std::int64_t> lastLineTime_{0};
};

}  // namespace instrument
