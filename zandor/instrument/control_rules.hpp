// Lists of rules: making changed ones, asking them, and letting go of old ones.
#pragma once

#include <string_view>

#include "control_registry.hpp"
#include "zandor/instrument/context.hpp"

namespace instrument::detail {

/// `list` (null: no rules) with this rule, which replaces one for the same entry. Throws
/// std::bad_alloc.
RuleList* withRule(const RuleList* list, std::string_view name, std::string_view value, bool on);

/// Frees a list once no thread reads it. Both with the controls' lock held; null is fine.
void retireRules(RuleList* list) noexcept;
void freeRetiredRules() noexcept;

/// What the rules in force say of a context.
Enabled askRules(const Element& element, const ContextSet& context) noexcept;
Enabled askRules(const Element& element, ContextArgs context) noexcept;

}  // namespace instrument::detail
