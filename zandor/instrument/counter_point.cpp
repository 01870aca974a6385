#include "zandor/instrument/counter_point.hpp"

#include <cmath>

namespace instrument {

namespace {

std::optional<double> numberOf(const ContextValue& value) noexcept {
    switch (value.kind()) {
        case ContextValue::Kind::signedInteger:
            return static_cast<double>(value.signedInteger());
        case ContextValue::Kind::unsignedInteger:
            return static_cast<double>(value.unsignedInteger());
        case ContextValue::Kind::real:
            return value.real();
        default:
            return std::nullopt;
    }
}

}  // namespace

std::optional<double> counterValueOf(ContextArgs context) noexcept {
    if (context.size() != 1 || context[0].name != counterValueName)
        return std::nullopt;
    const std::optional<double> number = numberOf(context[0].value);
    return number && std::isfinite(*number) ? number : std::nullopt;
}

}  // namespace instrument
