// Listeners for tests.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "zandor/instrument/controls.hpp"
#include "zandor/instrument/listener.hpp"
#include "zandor/instrument/listeners.hpp"
#include "zandor/instrument/testing/recorder_support.hpp"

namespace instrument::test_support {

struct HeardEvent {
    EventPointType type;
    std::string name;
    std::string context;
    EventId id;
    std::uint64_t sourceId;
    std::string sourceName;
    std::int64_t time;
    bool timeWasGiven;
};

/// Calls one function for every edge.
class HandlerListener : public InstrumentListener {
  public:
    using Handler = std::function<void(EventPointType, const Opaque*, const EventContext&, EventId,
                                       std::optional<std::int64_t>)>;
    explicit HandlerListener(Handler handler) : handler_(std::move(handler)) {}
    ~HandlerListener() override { listeners.remove(*this); }

    void onInstant(const Opaque* instrument, const EventContext& context, EventId id) override {
        handler_(EventPointType::instant, instrument, context, id, {});
    }
    void onStart(const Opaque* instrument, const EventContext& context, EventId id) override {
        handler_(EventPointType::start, instrument, context, id, {});
    }
    void onStop(const Opaque* instrument, const EventContext& context, EventId id) override {
        handler_(EventPointType::stop, instrument, context, id, {});
    }
    void onInstantAt(const Opaque* instrument, const EventContext& context, EventId id,
                     std::int64_t time) override {
        handler_(EventPointType::instant, instrument, context, id, time);
    }
    void onStartAt(const Opaque* instrument, const EventContext& context, EventId id,
                   std::int64_t time) override {
        handler_(EventPointType::start, instrument, context, id, time);
    }
    void onStopAt(const Opaque* instrument, const EventContext& context, EventId id,
                  std::int64_t time) override {
        handler_(EventPointType::stop, instrument, context, id, time);
    }

  private:
    Handler handler_;
};

/// Keeps what it hears.
class EventLog : public HandlerListener {
  public:
    EventLog()
        : HandlerListener([this](EventPointType type, const Opaque* instrument,
                                 const EventContext& context, EventId id,
                                 std::optional<std::int64_t> time) {
              const std::lock_guard locked(lock_);
              events_.push_back({type, instrument->name, textOf(context.set()), id,
                                 context.sourceId(), std::string(context.sourceName()),
                                 context.time(), time.has_value()});
          }) {}
    ~EventLog() override { listeners.remove(*this); }

    std::vector<HeardEvent> events() const {
        const std::lock_guard locked(lock_);
        return events_;
    }
    /// "start a, stop a", with contexts in brackets.
    std::string story() const {
        std::string told;
        for (const HeardEvent& event : events()) {
            told.append(told.empty() ? "" : ", ").append(getName(event.type)).append(" ");
            told.append(event.name);
            if (!event.context.empty())
                told.append(" [").append(event.context).append("]");
        }
        return told;
    }
    void clear() {
        const std::lock_guard locked(lock_);
        events_.clear();
    }

  private:
    mutable std::mutex lock_;
    std::vector<HeardEvent> events_;
};

/// Counts without a lock.
class CountingListener : public InstrumentListener {
  public:
    std::atomic<std::uint64_t> starts{0};
    std::atomic<std::uint64_t> stops{0};
    std::atomic<std::uint64_t> instants{0};

    ~CountingListener() override { listeners.remove(*this); }
    std::uint64_t total() const { return starts + stops + instants; }

    void onInstant(const Opaque*, const EventContext&, EventId) override { ++instants; }
    void onStart(const Opaque*, const EventContext&, EventId) override { ++starts; }
    void onStop(const Opaque*, const EventContext&, EventId) override { ++stops; }
    void onInstantAt(const Opaque*, const EventContext&, EventId, std::int64_t) override {
        ++instants;
    }
    void onStartAt(const Opaque*, const EventContext&, EventId, std::int64_t) override { ++starts; }
    void onStopAt(const Opaque*, const EventContext&, EventId, std::int64_t) override { ++stops; }
};

/// Begins and ends with everything off and nothing said of any instrument.
class ControlsTest : public testing::Test {
  protected:
    void SetUp() override { controls.disableAll(); }
    void TearDown() override { controls.disableAll(); }
};

}  // namespace instrument::test_support
