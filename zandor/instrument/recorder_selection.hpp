// Which events a query is about: all, those of a name, those of a name that hold every given entry.
#pragma once

#include <algorithm>
#include <cstdint>
#include <span>
#include <string_view>

#include "context_text.hpp"
#include "control_registry.hpp"
#include "zandor/instrument/context.hpp"
#include "zandor/instrument/instrument.hpp"

namespace instrument::detail {

/// Refers to the entries that it was made of.
class Selection {
  public:
    Selection() = default;
    explicit Selection(std::string_view name, std::span<const ContextEntry> entries = {})
        : all_(false), instrument_(findElement(name)), entries_(entries) {}

    /// Whether no event can be in it.
    bool isEmpty() const noexcept { return !all_ && !instrument_; }
    bool hasInstrument(std::uint32_t id) const noexcept {
        return all_ || (instrument_ && instrument_->id == id);
    }
    bool hasContext(ContextArgs context) const {
        return std::ranges::all_of(entries_, [&](const ContextEntry& entry) {
            return std::ranges::any_of(context, [&](const ContextArg& arg) {
                return arg.name == entry.name && ValueText(arg.value).view() == entry.value;
            });
        });
    }
    /// The one instrument that it is about; null when it is about all, or when nobody knows the
    /// name.
    const Opaque* instrument() const noexcept { return instrument_; }

  private:
    bool all_ = true;
    const Opaque* instrument_ = nullptr;
    std::span<const ContextEntry> entries_;
};

}  // namespace instrument::detail
