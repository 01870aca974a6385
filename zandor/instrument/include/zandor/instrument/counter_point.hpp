// Quantities over time: memory in use, a residual, the length of a queue.
//
//   static const instrument::Instrument residual{"residual"};
//   instrument::setCounter(residual, 1e-3);
//
// A point of a counter is an instant with one entry, the value. Listeners hear it as any other
// instant; trace-event JSON shows the points of one name as a curve.
#pragma once

#include <concepts>
#include <optional>
#include <string_view>

#include "zandor/instrument/export.hpp"
#include "zandor/instrument/instrument.hpp"

namespace instrument {

/// The name of that entry.
inline constexpr std::string_view counterValueName = "counter value";

/// Says how large the quantity is from now on. Costs what Instrument::instant does.
template <typename Number>
requires std::integral<Number> || std::floating_point<Number>
void setCounter(const Instrument& counter, Number value) {
    counter.instant({{counterValueName, value}});
}

/// The value, where the context is that of a counter's point: a finite number and nothing else.
ZANDOR_INSTRUMENT_API std::optional<double> counterValueOf(ContextArgs context) noexcept;

}  // namespace instrument
