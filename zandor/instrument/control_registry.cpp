#include "control_registry.hpp"

#include <limits>
#include <new>
#include <stdexcept>
#include <string>

#include "blocks.hpp"
#include "control_rules.hpp"
#include "listener_array.hpp"
#include "names.hpp"
#include "process_state.hpp"
#include "run_file.hpp"
#include "text_table.hpp"
#include "zandor/instrument/controls.hpp"

namespace instrument {
namespace detail {
namespace {

constinit TextTable<Element> elements;
constinit Arena arena;

/// What holds for all instruments. Epochs begin with 1, so that a new element has been told
/// nothing.
struct Mode {
    bool all = false;
    std::uint64_t ownEpoch = 1;    ///< of the latest disableAll
    std::uint64_t sinceEpoch = 1;  ///< of the latest enableAll or disableAll
};

// Changed in the other place and then published by one store, so that a fork meanwhile leaves it
// whole: the store releases, and being copied acquires. Both with the controls' lock held: relaxed.
constinit Mode modes[2];
constinit std::atomic<int> modeInForce{0};

const Mode& mode() noexcept {
    return modes[modeInForce.load(std::memory_order_relaxed)];
}

void setMode(const Mode& changed) noexcept {
    const int other = 1 - modeInForce.load(std::memory_order_relaxed);
    modes[other] = changed;
    modeInForce.store(other, std::memory_order_release);
    controls.allEnabled.store(changed.all, std::memory_order_relaxed);
}

/// What user programs read, from what was said.
void derive(Element& element) noexcept {
    const Mode& now = mode();
    const ElementState& state = now.all ? element.since : element.own;
    const bool said =
        state.epoch.load(std::memory_order_relaxed) == (now.all ? now.sinceEpoch : now.ownEpoch);
    const Switch plain = said ? state.plain.load(std::memory_order_relaxed) : Switch::unset;
    const RuleList* rules = said ? state.rules.load(std::memory_order_relaxed) : nullptr;
    // Release pairs with the acquire where rules are asked: the list is whole.
    element.rulesInForce.store(rules, std::memory_order_release);
    element.hasContextRules.store(rules != nullptr, std::memory_order_relaxed);
    element.enabled.store(plain == Switch::unset ? now.all : plain == Switch::on,
                          std::memory_order_relaxed);
}

template <class Visit>
void forEachElement(Visit visit) {
    const std::uint32_t count = elements.size();
    for (std::uint32_t i = 0; i < count; ++i)
        visit(*elements.at(i));
}

Element* makeElement(std::string_view name) noexcept {
    void* characters = arena.allocate(name.size() + 1);
    void* memory = arena.allocate(sizeof(Element));
    if (!characters || !memory)
        return nullptr;
    auto* copy = static_cast<char*>(characters);
    name.copy(copy, name.size());
    copy[name.size()] = '\0';
    auto* element = ::new (memory) Element();
    element->name = copy;
    element->id = elements.size();
    element->nameLength = static_cast<std::uint32_t>(name.size());
    derive(*element);
    return element;
}

/// With the controls' lock held.
Element& insertElement(std::string_view name, std::uint64_t hash) {
    if (Element* known = elements.find(name, hash))
        return *known;
    if (name.size() >= std::numeric_limits<std::uint32_t>::max() || !elements.reserve())
        throw std::bad_alloc();
    Element* element = makeElement(name);
    if (!element)
        throw std::bad_alloc();
    {
        const Locked journals(processState().texts);
        journalInstrument(*element);
    }
    elements.insert(*element, hash);
    return *element;
}

/// The state, told nothing yet in this epoch where it was told in an older one.
ElementState& current(ElementState& state, std::uint64_t epoch) noexcept {
    if (state.epoch.load(std::memory_order_relaxed) != epoch) {
        retireRules(state.rules.exchange(nullptr, std::memory_order_relaxed));
        state.plain.store(Switch::unset, std::memory_order_relaxed);
        // After the two, for a fork in between.
        state.epoch.store(epoch, std::memory_order_release);
    }
    return state;
}

/// Has `say` tell the states that an individual call changes.
template <class Say>
void tell(std::string_view name, Say say) {
    enterProcess();
    const Locked locked(processState().controls);
    Element& element = insertElement(name, hashText(name));
    const Mode& now = mode();
    say(current(element.own, now.ownEpoch));
    if (now.all)
        say(current(element.since, now.sinceEpoch));
    derive(element);
    freeRetiredRules();
}

void tellSwitch(std::string_view name, bool on) {
    tell(name, [on](ElementState& state) {
        state.plain.store(on ? Switch::on : Switch::off, std::memory_order_relaxed);
    });
}

void tellRule(std::string_view name, const ContextEntry& entry, bool on) {
    tell(name, [&](ElementState& state) {
        RuleList* known = state.rules.load(std::memory_order_relaxed);
        state.rules.store(withRule(known, entry.name, entry.value, on), std::memory_order_relaxed);
        retireRules(known);
    });
}

/// Puts a mode in force for all names.
void apply(const Mode& changed) noexcept {
    setMode(changed);
    forEachElement([&](Element& element) {
        derive(element);
        if (element.since.epoch.load(std::memory_order_relaxed) != changed.sinceEpoch)
            retireRules(element.since.rules.exchange(nullptr, std::memory_order_relaxed));
        if (element.own.epoch.load(std::memory_order_relaxed) != changed.ownEpoch)
            retireRules(element.own.rules.exchange(nullptr, std::memory_order_relaxed));
    });
    freeRetiredRules();
}

}  // namespace

Element* findElement(std::string_view name) noexcept {
    return elements.find(name, hashText(name));
}

const Opaque* instrumentFromId(std::uint32_t id) noexcept {
    return elements.at(id);
}

bool isOnByRules(const Opaque* handle, ContextArgs context) noexcept {
    const Enabled verdict = askRules(Element::of(handle), context);
    return verdict == Enabled::noRule ? handle->enabled.load(std::memory_order_relaxed)
                                      : verdict == Enabled::enabled;
}

void enterProcess() noexcept {
    ProcessState& state = processState();
    if (state.entered.load(std::memory_order_relaxed) || state.entered.exchange(true))
        return;
    beginSources();
    const Locked locked(state.controls);
    controls.allEnabled.store(mode().all, std::memory_order_relaxed);
    forEachElement(derive);
    listeners.anyListenerActive.store(listenersInForce.load(std::memory_order_relaxed) != nullptr,
                                      std::memory_order_relaxed);
}

}  // namespace detail

using namespace detail;

constinit Controls controls;

const Opaque* Controls::getHandle(std::string_view name) {
    refuseNul(name, "instrument::Controls::getHandle: name");
    const std::uint64_t hash = hashText(name);
    Element* element = elements.find(name, hash);
    if (!element) {
        enterProcess();
        {
            const Locked locked(processState().controls);
            element = &insertElement(name, hash);
        }
        sayManyTexts("instrument names", element->id + 1);
    }
    // Relaxed: it publishes nothing but itself.
    if (!element->registered.load(std::memory_order_relaxed))
        element->registered.store(true, std::memory_order_relaxed);
    return element;
}

void Controls::setPlace(const Opaque* handle, std::string_view file, std::uint32_t line) {
    enterProcess();
    const InternedText* place = intern(std::string(file) + ':' + std::to_string(line));
    if (!place)
        throw std::bad_alloc();
    const Locked locked(processState().controls);
    auto& element = const_cast<Element&>(Element::of(handle));
    if (element.place.load(std::memory_order_relaxed))
        return;
    {
        const Locked journals(processState().texts);
        journalPlace(element, *place);
    }
    // Pairs with the acquire of those who read it.
    element.place.store(place->text(), std::memory_order_release);
}

bool Controls::has(std::string_view name) const {
    const Element* element = findElement(name);
    return element && element->registered.load(std::memory_order_relaxed);
}

bool Controls::isEnabled(std::string_view name) const {
    const Element* element = findElement(name);
    return element ? element->enabled.load(std::memory_order_relaxed) : wereAllEnabled();
}

bool Controls::isEnabled(std::string_view name, const ContextSet& context) const {
    const Element* element = findElement(name);
    if (element && !context.empty() && element->hasContextRules.load(std::memory_order_relaxed)) {
        const Enabled verdict = askRules(*element, context);
        if (verdict != Enabled::noRule)
            return verdict == Enabled::enabled;
    }
    return isEnabled(name);
}

void Controls::enable(std::string_view name) {
    refuseNul(name, "instrument::Controls::enable: name");
    tellSwitch(name, true);
}

void Controls::enable(std::string_view name, const ContextEntry& entry) {
    refuseNul(name, "instrument::Controls::enable: name");
    tellRule(name, entry, true);
}

void Controls::disable(std::string_view name) {
    refuseNul(name, "instrument::Controls::disable: name");
    tellSwitch(name, false);
}

void Controls::disable(std::string_view name, const ContextEntry& entry) {
    refuseNul(name, "instrument::Controls::disable: name");
    tellRule(name, entry, false);
}

void Controls::enableAll(bool on) {
    enterProcess();
    const Locked locked(processState().controls);
    const Mode& now = mode();
    apply({on, now.ownEpoch, now.sinceEpoch + 1});
}

void Controls::disableAll() {
    enterProcess();
    const Locked locked(processState().controls);
    const Mode& now = mode();
    apply({false, now.ownEpoch + 1, now.sinceEpoch + 1});
}

}  // namespace instrument
