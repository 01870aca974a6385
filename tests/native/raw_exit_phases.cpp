// Events before main, from exit handlers and destructors of static objects, and from a thread that
// goes on through exit, with listeners still registered. The exit status tells; no framework is
// there in these phases.
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <thread>

#include "zandor/instrument/controls.hpp"
#include "zandor/instrument/instrument.hpp"
#include "zandor/instrument/listener.hpp"
#include "zandor/instrument/recorder.hpp"

namespace {

using namespace instrument;

void require(bool condition, const char* what) {
    if (condition)
        return;
    std::fprintf(stderr, "failed: %s\n", what);
    _exit(1);
}

/// Never destroyed; counts the edges of one instrument.
class Witness : public InstrumentListener {
  public:
    std::atomic<int> edges{0};
    void onInstant(const Opaque* instrument, const EventContext&, EventId) override {
        hear(instrument);
    }
    void onStart(const Opaque* instrument, const EventContext&, EventId) override {
        hear(instrument);
    }
    void onStop(const Opaque* instrument, const EventContext&, EventId) override {
        hear(instrument);
    }
    void onInstantAt(const Opaque*, const EventContext&, EventId, std::int64_t) override {}
    void onStartAt(const Opaque*, const EventContext&, EventId, std::int64_t) override {}
    void onStopAt(const Opaque*, const EventContext&, EventId, std::int64_t) override {}

  private:
    void hear(const Opaque* instrument) { edges += instrument->name[0] == 'p'; }
};

alignas(Witness) unsigned char witnessMemory[sizeof(Witness)];
Witness* witness = nullptr;

/// Emits three edges and sees that they were heard.
void emitPhase(const char* phase) {
    const int before = witness->edges;
    const Instrument instrument{"phase"};
    {
        Scope scope{instrument, {{"phase", phase}}};
        instrument.instant();
    }
    require(witness->edges == before + 3, phase);
}

/// The first static object of this file: destroyed last.
const struct First {
    First() {
        witness = ::new (witnessMemory) Witness;
        listeners.add(*witness);
        controls.enable("phase");
        controls.enable("other thread");
        emitPhase("static constructor");
    }
    ~First() { emitPhase("the last static destructor"); }
} first;

// Goes while the detached thread is emitting into it.
InstrumentRecorder recorder;

const struct Second {
    Second() {
        listeners.add(recorder);
        emitPhase("second static constructor");
    }
    ~Second() {
        emitPhase("static destructor");
        require(recorder.getEvents("phase").size() >= 3, "the recorder's events");
    }
} second;

struct ThreadLocal {
    bool used = false;
    ~ThreadLocal() { emitPhase("thread-local destructor of the main thread"); }
};
thread_local ThreadLocal threadLocal;

std::atomic<bool> emitting{false};

void emitForever() {
    static constinit detail::LazyInstrument other{"other thread"};
    for (int i = 0;; ++i) {
        Scope scope{other.get(), {{"i", i}, {"even", i % 2 == 0}}};
        emitting = true;
    }
}

}  // namespace

int main() {
    threadLocal.used = true;
    emitPhase("main");
    std::atexit([] { emitPhase("exit handler"); });
    std::thread(emitForever).detach();
    while (!emitting)
        std::this_thread::yield();
    return 0;
}
