// Texts and values as JSON that every reader takes: well-formed UTF-8, numbers that a double holds.
#pragma once

#include <string_view>

#include "zandor/instrument/instrument.hpp"
#include "zandor/instrument/text_buffer.hpp"

namespace instrument::detail {

/// The text without its quotes, escaped; ill-formed parts are U+FFFD.
ZANDOR_INSTRUMENT_API void appendJsonText(TextBuffer& out, std::string_view text);

/// A name as printableName gives it, without its quotes, escaped.
ZANDOR_INSTRUMENT_API void appendJsonName(TextBuffer& out, std::string_view name);

/// Numbers as numbers; as texts where a double does not hold them (integers above 2^53, infinities
/// and NaN).
ZANDOR_INSTRUMENT_API void appendJsonValue(TextBuffer& out, const ContextValue& value);

}  // namespace instrument::detail
