// Text conversion between UTF-8 and UTF-16.
//
// Ill-formed input never fails in the replacing forms: each maximal ill-formed part becomes one
// U+FFFD. All functions are pure and may be called from any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "zandor/runtime/export.hpp"

namespace fl {

using ustring = std::u16string;

namespace i18n {

/// UTF-8 of UTF-16 text; a lone surrogate becomes U+FFFD.
ZANDOR_RUNTIME_API std::string ustring_to_utf8(std::u16string_view text);

/// The same, or nothing when the text is ill-formed.
ZANDOR_RUNTIME_API std::optional<std::string> ustring_to_utf8_strict(std::u16string_view text);

/// UTF-16 of UTF-8 bytes; ill-formed bytes become U+FFFD.
ZANDOR_RUNTIME_API ustring utf8_to_ustring(std::string_view text);

/// How many UTF-16 code units `utf8_to_ustring` would give.
ZANDOR_RUNTIME_API std::size_t utf16_length(std::string_view utf8) noexcept;

/// Writes exactly utf16_length(utf8) units at `out`.
ZANDOR_RUNTIME_API void utf8_to_utf16(std::string_view utf8, char16_t* out) noexcept;

/// The text with every ill-formed part replaced by U+FFFD.
ZANDOR_RUNTIME_API std::string sanitize_utf8(std::string_view text);

}  // namespace i18n
}  // namespace fl
