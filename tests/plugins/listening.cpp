// A plug-in that leaves its listeners registered: one in its own memory, one in the caller's whose
// class is the plug-in's.
#include <atomic>
#include <new>

#include "zandor/instrument/listener.hpp"

namespace {

std::atomic<int>* heard = nullptr;

class Listener : public instrument::InstrumentListener {
  public:
    using Opaque = instrument::Opaque;
    using EventContext = instrument::EventContext;
    using EventId = instrument::EventId;

    void onInstant(const Opaque*, const EventContext&, EventId) override { hear(); }
    void onStart(const Opaque*, const EventContext&, EventId) override { hear(); }
    void onStop(const Opaque*, const EventContext&, EventId) override { hear(); }
    void onInstantAt(const Opaque*, const EventContext&, EventId, std::int64_t) override { hear(); }
    void onStartAt(const Opaque*, const EventContext&, EventId, std::int64_t) override { hear(); }
    void onStopAt(const Opaque*, const EventContext&, EventId, std::int64_t) override { hear(); }

  private:
    static void hear() { ++*heard; }
};

Listener inOwnMemory;

}  // namespace

extern "C" {

__attribute__((visibility("default"))) void ZDInitialize_listening() {}

/// `memory` takes a pointer's size, and the listener there is never destroyed.
__attribute__((visibility("default"))) void listenAndCount(std::atomic<int>* counter,
                                                           void* memory) {
    static_assert(sizeof(Listener) == sizeof(void*));
    heard = counter;
    instrument::listeners.add(inOwnMemory);
    instrument::listeners.add(*::new (memory) Listener);
}
}
