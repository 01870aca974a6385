#include "control_rules.hpp"

#include <algorithm>
#include <new>

#include "blocks.hpp"
#include "context_text.hpp"
#include "process_state.hpp"
#include "read_section.hpp"

namespace instrument::detail {
namespace {

std::size_t sizeFor(std::uint32_t count) noexcept {
    return sizeof(RuleList) + count * sizeof(Rule);
}

bool before(const Rule& rule, std::string_view name, std::string_view value) noexcept {
    const int order = rule.name->view().compare(name);
    return order < 0 || (order == 0 && rule.value->view() < value);
}

bool isFor(const Rule& rule, std::string_view name, std::string_view value) noexcept {
    return rule.name->view() == name && rule.value->view() == value;
}

const InternedText& internOrThrow(std::string_view text) {
    if (const InternedText* interned = intern(text))
        return *interned;
    throw std::bad_alloc();
}

/// Among the rules that match, off wins.
class Verdict {
  public:
    explicit Verdict(const RuleList& rules) noexcept : rules_(rules) {}
    void hear(std::string_view name, std::string_view value) noexcept {
        const Rule* rule = rules_.find(name, value);
        if (rule && result_ != Enabled::disabled)
            result_ = rule->on ? Enabled::enabled : Enabled::disabled;
    }
    Enabled result() const noexcept { return result_; }

  private:
    const RuleList& rules_;
    Enabled result_ = Enabled::noRule;
};

Enabled judge(const RuleList& rules, const ContextSet& context) noexcept {
    Verdict verdict(rules);
    for (const ContextEntry& entry : context)
        verdict.hear(entry.name, entry.value);
    return verdict.result();
}

Enabled judge(const RuleList& rules, ContextArgs context) noexcept {
    Verdict verdict(rules);
    for (auto arg = context.begin(); arg != context.end(); ++arg) {
        const auto sameName = [&](const ContextArg& other) { return other.name == arg->name; };
        if (std::none_of(context.begin(), arg, sameName))
            verdict.hear(arg->name, ValueText(arg->value).view());
    }
    return verdict.result();
}

template <class Context>
Enabled judgeInForce(const Element& element, const Context& context) noexcept {
    // Pairs with the release where the element's flags are derived.
    const RuleList* rules = element.rulesInForce.load(std::memory_order_acquire);
    return rules ? judge(*rules, context) : Enabled::noRule;
}

template <class Context>
Enabled ask(const Element& element, const Context& context) noexcept {
    if (ThreadState* state = ThreadState::ofThisThread()) [[likely]] {
        const ReadSection section(*state);
        return judgeInForce(element, context);
    }
    // The thread is past its end and cannot mark that it reads.
    const Locked locked(processState().controls);
    return judgeInForce(element, context);
}

}  // namespace

const Rule* RuleList::find(std::string_view name, std::string_view value) const noexcept {
    const Rule* place = std::lower_bound(
        begin(), end(), name,
        [&](const Rule& rule, std::string_view wanted) { return before(rule, wanted, value); });
    return place != end() && isFor(*place, name, value) ? place : nullptr;
}

RuleList* withRule(const RuleList* list, std::string_view name, std::string_view value, bool on) {
    const Rule added{&internOrThrow(name), &internOrThrow(value), on};
    const std::uint32_t known = list ? list->count : 0;
    void* memory = allocateBlock(sizeFor(known + 1));
    if (!memory)
        throw std::bad_alloc();
    auto* made = ::new (memory) RuleList{0, nullptr};
    auto* rules = reinterpret_cast<Rule*>(made + 1);
    const Rule* from = list ? list->begin() : nullptr;
    const Rule* place = std::find_if_not(
        from, from + known, [&](const Rule& rule) { return before(rule, name, value); });
    Rule* end = std::uninitialized_copy(from, place, rules);
    *end++ = added;
    if (place != from + known && isFor(*place, name, value))
        ++place;
    end = std::uninitialized_copy(place, from + known, end);
    made->count = static_cast<std::uint32_t>(end - rules);
    return made;
}

void retireRules(RuleList* list) noexcept {
    if (!list)
        return;
    RuleList*& retired = processState().retiredRules;
    list->nextRetired = retired;
    retired = list;
}

void freeRetiredRules() noexcept {
    RuleList*& retired = processState().retiredRules;
    if (!retired || !everybodyLeft())
        return;
    while (RuleList* list = retired) {
        retired = list->nextRetired;
        freeBlock(list, sizeFor(list->count));
    }
}

Enabled askRules(const Element& element, const ContextSet& context) noexcept {
    return ask(element, context);
}

Enabled askRules(const Element& element, ContextArgs context) noexcept {
    return ask(element, context);
}

}  // namespace instrument::detail

namespace instrument {

Enabled ControlElement::getContextEnabledImpl(const ContextSet& context) const {
    return detail::askRules(static_cast<const detail::Element&>(*this), context);
}

}  // namespace instrument
