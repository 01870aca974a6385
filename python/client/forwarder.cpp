#include "forwarder.hpp"

#include <string>
#include <vector>

#include "zandor/instrument/context.hpp"
#include "zandor/instrument/listeners.hpp"

namespace vantrace {

using instrument::EventContext;
using instrument::EventId;
using instrument::Opaque;

namespace {

// Taken while another thread fills or empties a place.
constexpr std::uint64_t inUse = UINT64_MAX;

/// The context as the client's interface takes it.
class ContextTexts {
  public:
    explicit ContextTexts(const EventContext& context) {
        if (context.empty())
            return;
        for (const instrument::ContextEntry& entry : context.set()) {
            keys_.emplace_back(entry.name.data());  // a NUL follows
            values_.emplace_back(entry.value.c_str());
        }
    }
    const char* const* keys() const noexcept { return keys_.data(); }
    const char* const* values() const noexcept { return values_.data(); }
    std::size_t count() const noexcept { return keys_.size(); }

  private:
    std::vector<const char*> keys_;
    std::vector<const char*> values_;
};

/// The thread's name goes with its ring, so it has to be known before its first event.
void nameThread(const EventContext& context) {
    static thread_local std::uint64_t named = 0;
    if (named == context.sourceId())
        return;
    named = context.sourceId();
    zandor_client_name_thread(std::string(context.sourceName()).c_str());
}

}  // namespace

Forwarder::~Forwarder() {
    instrument::listeners.remove(*this);
}

void Forwarder::onInstant(const Opaque* instrument, const EventContext& context, EventId) {
    if (!zandor_client_is_wanted(client_))
        return;
    nameThread(context);
    const ContextTexts texts(context);
    zandor_client_instant(client_, instrument->name, texts.keys(), texts.values(), texts.count());
}

void Forwarder::onStart(const Opaque* instrument, const EventContext& context, EventId id) {
    if (!zandor_client_is_wanted(client_))
        return;
    nameThread(context);
    const ContextTexts texts(context);
    const zandor_event event =
        zandor_client_start(client_, instrument->name, texts.keys(), texts.values(), texts.count());
    if (event.serial != 0)
        keep(id, event);
}

void Forwarder::onStop(const Opaque*, const EventContext&, EventId id) {
    zandor_event event{};
    if (take(id, event))
        zandor_client_stop(client_, event);
}

Forwarder::Open& Forwarder::placeOf(EventId id, std::size_t probe) const noexcept {
    return open_->all[(id.serialId + id.sourceId * 4099 + probe) % places];
}

/// Where all places are taken the event stays open at the host.
void Forwarder::keep(EventId id, zandor_event event) noexcept {
    for (std::size_t probe = 0; probe < probes; ++probe) {
        Open& open = placeOf(id, probe);
        std::uint64_t free = 0;
        if (!open.source.compare_exchange_strong(free, inUse, std::memory_order_acquire))
            continue;
        open.serial.store(id.serialId, std::memory_order_relaxed);
        open.event = event;
        // Pairs with the acquire in take.
        open.source.store(id.sourceId, std::memory_order_release);
        return;
    }
}

bool Forwarder::take(EventId id, zandor_event& event) noexcept {
    for (std::size_t probe = 0; probe < probes; ++probe) {
        Open& open = placeOf(id, probe);
        if (open.source.load(std::memory_order_acquire) != id.sourceId ||
            open.serial.load(std::memory_order_relaxed) != id.serialId)
            continue;
        std::uint64_t expected = id.sourceId;
        if (!open.source.compare_exchange_strong(expected, inUse, std::memory_order_acquire))
            continue;
        event = open.event;
        // Pairs with the acquire in keep.
        open.source.store(0, std::memory_order_release);
        return true;
    }
    return false;
}

}  // namespace vantrace
