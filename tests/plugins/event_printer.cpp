// A listener for tests of front ends: prints each event on the host's console, or throws.
#include <cstdint>
#include <stdexcept>

#include "zandor/instrument/listener.hpp"
#include "zandor/instrument/listeners.hpp"
#include "zandor/runtime/console.hpp"

#define TEST_API extern "C" __attribute__((visibility("default")))

namespace {

using instrument::EventContext;
using instrument::EventId;
using instrument::Opaque;

class Printer : public instrument::InstrumentListener {
  public:
    ~Printer() override { instrument::listeners.remove(*this); }

    bool throws = false;

    void onInstant(const Opaque* event, const EventContext&, EventId) override {
        tell("INSTANT", event);
    }
    void onStart(const Opaque* event, const EventContext&, EventId) override {
        tell("START", event);
    }
    void onStop(const Opaque* event, const EventContext&, EventId) override { tell("STOP", event); }
    void onInstantAt(const Opaque*, const EventContext&, EventId, std::int64_t) override {}
    void onStartAt(const Opaque*, const EventContext&, EventId, std::int64_t) override {}
    void onStopAt(const Opaque*, const EventContext&, EventId, std::int64_t) override {}

  private:
    void tell(const char* edge, const Opaque* event) const {
        if (throws)
            throw std::invalid_argument("no ear for this");
        utPrintf("%s: %s\n", edge, event->name);
    }
};

Printer printer;

}  // namespace

TEST_API void startPrinting() {
    printer.throws = false;
    instrument::listeners.add(printer);
}

TEST_API void startThrowing() {
    printer.throws = true;
    instrument::listeners.add(printer);
}

TEST_API void stopListening() {
    instrument::listeners.remove(printer);
}

TEST_API int printText(const char* text) {
    return utPrintf("%s", text);
}

/// For on_exit.
TEST_API void printOnExit(int, void* text) {
    utPrintf("%s", static_cast<const char*>(text));
}
