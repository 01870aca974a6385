// Context values as text.
#pragma once

#include <string_view>

#include "zandor/instrument/instrument.hpp"

namespace instrument::detail {

/// The text of a value, on the stack where it is a number. Integers and shortest round-trip reals
/// in decimal, "true", "false".
class ValueText {
  public:
    explicit ValueText(const ContextValue& value) noexcept;
    ValueText(const ValueText&) = delete;
    ValueText& operator=(const ValueText&) = delete;
    /// As long as this and the value's own text are there.
    std::string_view view() const noexcept { return view_; }

  private:
    template <class Number>
    std::string_view print(Number number) noexcept;

    char digits_[32];
    std::string_view view_;
};

}  // namespace instrument::detail
