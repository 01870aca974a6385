#include "zandor/runtime/text.hpp"

#include <unicode/utf16.h>
#include <unicode/utf8.h>

#include <cstdint>
#include <cstring>
#include <type_traits>

namespace fl::i18n {

namespace {

constexpr std::size_t stride = 8;
using Bytes [[gnu::vector_size(8)]] = std::uint8_t;
using Units [[gnu::vector_size(16)]] = std::uint16_t;

bool isAscii8(const char* utf8) noexcept {
    std::uint64_t bytes;
    std::memcpy(&bytes, utf8, sizeof bytes);
    return !(bytes & 0x8080808080808080u);
}

bool isAscii8(const char16_t* utf16) noexcept {
    std::uint64_t units[2];
    std::memcpy(units, utf16, sizeof units);
    return !((units[0] | units[1]) & 0xff80ff80ff80ff80u);
}

/// Most texts are short and ASCII throughout.
template <typename Char>
bool isAscii(std::basic_string_view<Char> text) noexcept {
    std::size_t at = 0;
    for (; at + stride <= text.size(); at += stride) {
        if (!isAscii8(text.data() + at)) {
            return false;
        }
    }
    unsigned seen = 0;
    for (; at < text.size(); ++at) {
        seen |= static_cast<std::make_unsigned_t<Char>>(text[at]);
    }
    return seen < 0x80;
}

void widen8(const char* ascii, char16_t* out) noexcept {
    Bytes bytes;
    std::memcpy(&bytes, ascii, sizeof bytes);
    const Units units = __builtin_convertvector(bytes, Units);
    std::memcpy(out, &units, sizeof units);
}

void narrow8(const char16_t* ascii, char* out) noexcept {
    Units units;
    std::memcpy(&units, ascii, sizeof units);
    const Bytes bytes = __builtin_convertvector(units, Bytes);
    std::memcpy(out, &bytes, sizeof bytes);
}

void widen(std::string_view ascii, char16_t* out) noexcept {
    std::size_t at = 0;
    for (; at + stride <= ascii.size(); at += stride) {
        widen8(ascii.data() + at, out + at);
    }
    for (; at < ascii.size(); ++at) {
        out[at] = static_cast<unsigned char>(ascii[at]);
    }
}

void narrow(std::u16string_view ascii, char* out) noexcept {
    std::size_t at = 0;
    for (; at + stride <= ascii.size(); at += stride) {
        narrow8(ascii.data() + at, out + at);
    }
    for (; at < ascii.size(); ++at) {
        out[at] = static_cast<char>(ascii[at]);
    }
}

/// Calls `run(offset)` for each eight ASCII units in a row, and `character(code point)` for each
/// other character, U+FFFD for each maximal ill-formed part.
template <typename Run, typename Character>
void decode(std::string_view utf8, Run run, Character character) {
    const char* text = utf8.data();
    const std::size_t length = utf8.size();
    for (std::size_t at = 0; at < length;) {
        if (length - at >= stride && isAscii8(text + at)) {
            run(at);
            at += stride;
            continue;
        }
        UChar32 codePoint;
        U8_NEXT_OR_FFFD(text, at, length, codePoint);
        character(codePoint);
    }
}

/// The same for UTF-16; `character` gets what the text has, lone surrogates as they are.
template <typename Run, typename Character>
void decode(std::u16string_view utf16, Run run, Character character) {
    const char16_t* text = utf16.data();
    const std::size_t length = utf16.size();
    for (std::size_t at = 0; at < length;) {
        if (length - at >= stride && isAscii8(text + at)) {
            run(at);
            at += stride;
            continue;
        }
        UChar32 codePoint;
        U16_NEXT(text, at, length, codePoint);
        character(codePoint);
    }
}

void append(std::string& out, UChar32 codePoint) {
    char bytes[U8_MAX_LENGTH];
    std::size_t length = 0;
    U8_APPEND_UNSAFE(bytes, length, codePoint);
    out.append(bytes, length);
}

/// Returns whether the text was well-formed.
bool convert(std::u16string_view text, std::string& out) {
    if (isAscii(text)) {
        out.resize(text.size());
        narrow(text, out.data());
        return true;
    }
    constexpr UChar32 replacement = 0xfffd;
    bool wellFormed = true;
    out.reserve(text.size());
    decode(
        text,
        [&](std::size_t at) {
            char bytes[stride];
            narrow8(text.data() + at, bytes);
            out.append(bytes, stride);
        },
        [&](UChar32 codePoint) {
            const bool lone = U_IS_SURROGATE(codePoint);
            wellFormed &= !lone;
            append(out, lone ? replacement : codePoint);
        });
    return wellFormed;
}

}  // namespace

std::string ustring_to_utf8(std::u16string_view text) {
    std::string result;
    convert(text, result);
    return result;
}

std::optional<std::string> ustring_to_utf8_strict(std::u16string_view text) {
    std::string result;
    if (!convert(text, result))
        return std::nullopt;
    return result;
}

std::size_t utf16_length(std::string_view utf8) noexcept {
    if (isAscii(utf8))
        return utf8.size();
    std::size_t length = 0;
    decode(
        utf8, [&](std::size_t) { length += stride; },
        [&](UChar32 codePoint) { length += static_cast<std::size_t>(U16_LENGTH(codePoint)); });
    return length;
}

void utf8_to_utf16(std::string_view utf8, char16_t* out) noexcept {
    if (isAscii(utf8))
        return widen(utf8, out);
    decode(
        utf8,
        [&](std::size_t at) {
            widen8(utf8.data() + at, out);
            out += stride;
        },
        [&](UChar32 codePoint) {
            std::size_t length = 0;
            U16_APPEND_UNSAFE(out, length, codePoint);
            out += length;
        });
}

ustring utf8_to_ustring(std::string_view text) {
    ustring result(utf16_length(text), u'\0');
    utf8_to_utf16(text, result.data());
    return result;
}

std::string sanitize_utf8(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    decode(
        text, [&](std::size_t at) { result.append(text.substr(at, stride)); },
        [&](UChar32 codePoint) { append(result, codePoint); });
    return result;
}

}  // namespace fl::i18n
