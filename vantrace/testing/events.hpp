// A listener that keeps what it heard, and controls as they are in a fresh process.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "zandor/instrument/controls.hpp"
#include "zandor/instrument/listener.hpp"
#include "zandor/instrument/listeners.hpp"

namespace vantrace_testing {

using Context = std::map<std::string, std::string>;

struct Heard {
    std::string kind;
    std::string name;
    Context context;
    instrument::EventId id;
};

/// Registered as long as it lives.
class Ear : public instrument::InstrumentListener {
  public:
    using Opaque = instrument::Opaque;
    using EventContext = instrument::EventContext;
    using EventId = instrument::EventId;

    Ear() { instrument::listeners.add(*this); }
    ~Ear() override { instrument::listeners.remove(*this); }

    const std::vector<Heard>& heard() const { return heard_; }
    std::vector<std::string> kinds() const {
        std::vector<std::string> kinds;
        for (const Heard& event : heard_)
            kinds.push_back(event.kind);
        return kinds;
    }
    /// Called at each event; may throw.
    std::function<void()> reaction = [] {};

    void onInstant(const Opaque* handle, const EventContext& context, EventId id) override {
        hear("instant", handle, context, id);
    }
    void onStart(const Opaque* handle, const EventContext& context, EventId id) override {
        hear("start", handle, context, id);
    }
    void onStop(const Opaque* handle, const EventContext& context, EventId id) override {
        hear("stop", handle, context, id);
    }
    void onInstantAt(const Opaque*, const EventContext&, EventId, std::int64_t) override {}
    void onStartAt(const Opaque*, const EventContext&, EventId, std::int64_t) override {}
    void onStopAt(const Opaque*, const EventContext&, EventId, std::int64_t) override {}

  private:
    void hear(const char* kind, const Opaque* handle, const EventContext& context, EventId id) {
        Context entries;
        for (const instrument::ContextEntry& entry : context.set())
            entries.emplace(entry.name, entry.value);
        heard_.push_back({kind, handle->name, entries, id});
        reaction();
    }

    std::vector<Heard> heard_;
};

/// Every instrument off, without rules, before and after.
class WithCleanControls : public testing::Test {
  protected:
    WithCleanControls() { instrument::controls.disableAll(); }
    ~WithCleanControls() override { instrument::controls.disableAll(); }
};

}  // namespace vantrace_testing
