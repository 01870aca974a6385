// Names as exports show them.
#pragma once

#include <string>
#include <string_view>

#include "zandor/instrument/export.hpp"

namespace instrument::detail {

/// The name as well-formed UTF-8 in which control characters, U+2028 and U+2029 (which break lines
/// or files in some viewer) are spaces; "(unnamed)" for none.
ZANDOR_INSTRUMENT_API std::string printableName(std::string_view name);

/// The same as a frame of a collapsed stack, where ';' parts frames.
ZANDOR_INSTRUMENT_API std::string frameName(std::string_view name);

/// Whether printableName and JSON leave the text as it is.
inline bool isPlain(std::string_view text) noexcept {
    bool plain = !text.empty();
    for (const char c : text)
        plain &= c >= ' ' && c != '\x7f' && c != '"' && c != '\\';
    return plain;
}

}  // namespace instrument::detail
