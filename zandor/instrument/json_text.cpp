#include "zandor/instrument/json_text.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <string>

#include "zandor/instrument/printable_text.hpp"
#include "zandor/runtime/text.hpp"

namespace instrument::detail {

namespace {

constexpr std::int64_t largestExact = std::int64_t{1} << 53;

/// What stands behind the backslash: 0 where no escape is needed, 'u' for the long form.
constexpr auto escapes = [] {
    std::array<char, 256> table{};
    std::fill_n(table.begin(), 0x20, 'u');
    table['\b'] = 'b';
    table['\f'] = 'f';
    table['\n'] = 'n';
    table['\r'] = 'r';
    table['\t'] = 't';
    table['"'] = '"';
    table['\\'] = '\\';
    return table;
}();

void appendEscape(TextBuffer& out, char character, char escape) {
    out.append('\\');
    out.append(escape);
    if (escape != 'u')
        return;
    constexpr std::string_view digits = "0123456789abcdef";
    out.append("00");
    out.append(digits[static_cast<unsigned char>(character) / 16]);
    out.append(digits[static_cast<unsigned char>(character) % 16]);
}

void appendEscaped(TextBuffer& out, std::string_view wellFormed) {
    std::size_t begin = 0;
    for (std::size_t at = 0; at < wellFormed.size(); ++at) {
        const char escape = escapes[static_cast<unsigned char>(wellFormed[at])];
        if (!escape)
            continue;
        out.append(wellFormed.substr(begin, at - begin));
        appendEscape(out, wellFormed[at], escape);
        begin = at + 1;
    }
    out.append(wellFormed.substr(begin));
}

bool appendPlain(TextBuffer& out, std::string_view text) {
    if (text.size() > TextBuffer::longestRoom)
        return false;
    const char* const end = putPlain(out.roomFor(text.size()), text);
    if (end)
        out.writtenTo(end);
    return end;
}

template <typename Integer>
void appendInteger(TextBuffer& out, Integer number, bool isExact) {
    const std::string_view quote = isExact ? "" : "\"";
    out.append(quote);
    out.appendNumber(number);
    out.append(quote);
}

void appendReal(TextBuffer& out, double number) {
    if (std::isnan(number))
        return out.append("\"nan\"");
    if (std::isinf(number))
        return out.append(number > 0 ? "\"inf\"" : "\"-inf\"");
    if (std::abs(number) < static_cast<double>(largestExact))
        return out.appendNumber(number);
    // With an exponent: digits alone would be a large integer to some reader.
    char text[32];
    const auto end =
        std::to_chars(text, text + sizeof text, number, std::chars_format::scientific).ptr;
    out.append({text, static_cast<std::size_t>(end - text)});
}

}  // namespace

void appendJsonText(TextBuffer& out, std::string_view text) {
    if (!appendPlain(out, text))
        appendEscaped(out, fl::i18n::sanitize_utf8(text));
}

void appendJsonName(TextBuffer& out, std::string_view name) {
    if (!appendPlain(out, name))
        appendEscaped(out, printableName(name));
}

void appendJsonValue(TextBuffer& out, const ContextValue& value) {
    switch (value.kind()) {
        case ContextValue::Kind::text:
            out.append('"');
            appendJsonText(out, value.text());
            out.append('"');
            return;
        case ContextValue::Kind::signedInteger: {
            const std::int64_t number = value.signedInteger();
            return appendInteger(out, number, -largestExact <= number && number <= largestExact);
        }
        case ContextValue::Kind::unsignedInteger: {
            const std::uint64_t number = value.unsignedInteger();
            return appendInteger(out, number, number <= std::uint64_t{largestExact});
        }
        case ContextValue::Kind::real:
            return appendReal(out, value.real());
        case ContextValue::Kind::logical:
            return out.append(value.logical() ? "true" : "false");
    }
}

}  // namespace instrument::detail
