// Texts from outside as terminals may be sent them.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>

namespace instrument::detail {

/// The length of a character that a terminal would obey; 0 where the text begins with another.
/// Those are the control characters of both sets, and what turns the direction of text round.
inline std::size_t lengthOfControl(std::string_view utf8) {
    const auto byte = [&](std::size_t i) {
        return i < utf8.size() ? static_cast<unsigned char>(utf8[i]) : 0;
    };
    if (byte(0) < ' ' || byte(0) == 0x7f)
        return 1;
    if (byte(0) == 0xc2 && byte(1) >= 0x80 && byte(1) < 0xa0)
        return 2;
    const bool turns =
        byte(0) == 0xe2 && ((byte(1) == 0x80 && byte(2) >= 0xaa && byte(2) <= 0xae) ||
                            (byte(1) == 0x81 && byte(2) >= 0xa6 && byte(2) <= 0xa9));
    return turns ? 3 : 0;
}

/// The text with a question mark for each of them.
inline std::string withoutControls(std::string_view name) {
    std::string text;
    while (!name.empty()) {
        const std::size_t length = lengthOfControl(name);
        text += length > 0 ? '?' : name.front();
        name.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return text;
}

}  // namespace instrument::detail
