// Texts that must do without a NUL, because they become zero-terminated.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace instrument::detail {

/// Throws std::invalid_argument, which says `what`, for a text with a NUL inside.
inline void refuseNul(std::string_view text, const char* what) {
    if (text.find('\0') != std::string_view::npos)
        throw std::invalid_argument(std::string(what) + " contains a NUL character");
}

}  // namespace instrument::detail
