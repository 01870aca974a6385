// Names as exports show them.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "zandor/instrument/export.hpp"

namespace instrument::detail {

/// The name as well-formed UTF-8 in which control characters, U+2028 and U+2029 (which break lines
/// or files in some viewer) are spaces; "(unnamed)" for none.
ZANDOR_INSTRUMENT_API std::string printableName(std::string_view name);

/// The same as a frame of a collapsed stack, where ';' parts frames.
ZANDOR_INSTRUMENT_API std::string frameName(std::string_view name);

/// Copies a text that printableName and JSON leave as it is, and returns the place behind it; null
/// for any other text. Looks at eight bytes at a time, since names make up much of an export.
inline char* putPlain(char* at, std::string_view text) noexcept {
    using Bytes [[gnu::vector_size(8)]] = signed char;
    if (text.size() < sizeof(Bytes)) {
        bool plain = !text.empty();
        for (const char c : text) {
            plain &= c >= ' ' && c != '\x7f' && c != '"' && c != '\\';
            *at++ = c;
        }
        return plain ? at : nullptr;
    }
    Bytes odd{};
    const auto copy = [&](std::size_t from) {
        Bytes bytes;
        std::memcpy(&bytes, text.data() + from, sizeof bytes);
        std::memcpy(at + from, &bytes, sizeof bytes);
        // Bytes above 0x7f are negative.
        odd |= (bytes < ' ') | (bytes == '\x7f') | (bytes == '"') | (bytes == '\\');
    };
    for (std::size_t from = 0; from + sizeof(Bytes) < text.size(); from += sizeof(Bytes))
        copy(from);
    copy(text.size() - sizeof(Bytes));  // some of these a second time
    return std::bit_cast<std::uint64_t>(odd) == 0 ? at + text.size() : nullptr;
}

}  // namespace instrument::detail
