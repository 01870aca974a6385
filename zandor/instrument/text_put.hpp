// Texts and numbers written at a place that has room, which is returned moved behind them.
#pragma once

#include <charconv>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace instrument::detail {

/// No number is longer.
inline constexpr std::size_t longestNumber = 32;

template <std::size_t Size>
char* put(char* at, const char (&literal)[Size]) noexcept {
    std::memcpy(at, literal, Size - 1);
    return at + (Size - 1);
}

/// Shortest decimal text.
template <typename Number>
requires std::integral<Number> || std::floating_point<Number>
char* putNumber(char* at, Number number) noexcept {
    return std::to_chars(at, at + longestNumber, number).ptr;
}

inline char* putHexadecimal(char* at, std::uint64_t number) noexcept {
    return std::to_chars(at, at + longestNumber, number, 16).ptr;
}

/// Nanoseconds as microseconds with three decimals.
inline char* putMicroseconds(char* at, std::int64_t nanoseconds) noexcept {
    auto magnitude = static_cast<std::uint64_t>(nanoseconds);
    if (nanoseconds < 0) {
        *at++ = '-';
        magnitude = 0 - magnitude;
    }
    at = putNumber(at, magnitude / 1000);
    const auto decimals = static_cast<unsigned>(magnitude % 1000);
    *at++ = '.';
    *at++ = static_cast<char>('0' + decimals / 100);
    *at++ = static_cast<char>('0' + decimals / 10 % 10);
    *at++ = static_cast<char>('0' + decimals % 10);
    return at;
}

}  // namespace instrument::detail
