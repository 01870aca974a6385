// Texts and numbers written at a place that has room, which is returned moved behind them.
#pragma once

#include <array>
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

/// The digits of 0 to 999, each number in four bytes.
inline constexpr auto threeDigits = [] {
    std::array<char, 4000> digits{};
    for (std::size_t number = 0; number < 1000; ++number) {
        digits[4 * number] = static_cast<char>('0' + number / 100);
        digits[4 * number + 1] = static_cast<char>('0' + number / 10 % 10);
        digits[4 * number + 2] = static_cast<char>('0' + number % 10);
    }
    return digits;
}();

/// Three digits, and a byte behind them that is to be written over.
inline char* putThreeDigits(char* at, std::uint64_t number) noexcept {
    std::memcpy(at, &threeDigits[4 * number], 4);
    return at + 3;
}

/// Decimal text of a number below a thousand.
inline char* putSmall(char* at, std::uint64_t number) noexcept {
    const std::size_t zeros = (number < 10) + (number < 100);
    std::memcpy(at, &threeDigits[4 * number + zeros], 3);
    return at + 3 - zeros;
}

/// Decimal text, three digits at a time.
inline char* putDecimal(char* at, std::uint64_t number) noexcept {
    if (number >= 1000)
        return putThreeDigits(putDecimal(at, number / 1000), number % 1000);
    return putSmall(at, number);
}

/// Nanoseconds as microseconds with three decimals, and a byte behind them that is to be written
/// over.
inline char* putMicroseconds(char* at, std::int64_t nanoseconds) noexcept {
    auto magnitude = static_cast<std::uint64_t>(nanoseconds);
    if (magnitude < 1'000'000) [[likely]] {
        const auto few = static_cast<std::uint32_t>(magnitude);
        at = putSmall(at, few / 1000);
        *at++ = '.';
        return putThreeDigits(at, few % 1000);
    }
    if (nanoseconds < 0) {
        *at++ = '-';
        magnitude = 0 - magnitude;
    }
    at = putDecimal(at, magnitude / 1000);
    *at++ = '.';
    return putThreeDigits(at, magnitude % 1000);
}

/// Puts times as putMicroseconds does. Of one that lies in the same millisecond as the one before
/// it, as most do of those in order, no more than six digits are new.
class NearMicroseconds {
  public:
    char* put(char* at, std::int64_t nanoseconds) noexcept {
        if (!isNear(nanoseconds)) [[unlikely]] {
            if (nanoseconds < millisecond)
                return putMicroseconds(at, nanoseconds);
            begin_ = nanoseconds - nanoseconds % millisecond;
            length_ =
                putDecimal(digits_, static_cast<std::uint64_t>(begin_ / millisecond)) - digits_;
        }
        // At a fixed size, which takes no call.
        std::memcpy(at, digits_, sizeof digits_);
        const auto rest = static_cast<std::uint32_t>(nanoseconds - begin_);
        at = putThreeDigits(at + length_, rest / 1000);
        *at++ = '.';
        return putThreeDigits(at, rest % 1000);
    }

  private:
    static constexpr std::int64_t millisecond = 1'000'000;

    bool isNear(std::int64_t nanoseconds) const noexcept {
        return nanoseconds >= begin_ && nanoseconds - begin_ < millisecond;
    }

    std::int64_t begin_ = millisecond;  // of the millisecond that the digits are of
    std::ptrdiff_t length_ = 1;
    char digits_[16] = "1";
};

}  // namespace instrument::detail
