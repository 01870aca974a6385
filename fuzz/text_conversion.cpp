// Converts texts of any bytes and any UTF-16 units both ways, beside a plain decoder of its own.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "fuzz/seeds.hpp"
#include "zandor/runtime/array.hpp"
#include "zandor/runtime/text.hpp"

namespace {

using namespace fl::i18n;

void expect(bool holds, const char* what) {
    if (holds)
        return;
    std::fprintf(stderr, "not so: %s\n", what);
    std::abort();
}

/// The character whose UTF-8 begins at `bytes`, if that is well-formed; moves behind it.
std::optional<char32_t> decode(std::string_view& bytes) {
    const auto at = [&](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
    const unsigned lead = at(0);
    const std::size_t length = lead < 0x80 ? 1 : lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
    if ((lead >= 0x80 && lead < 0xc2) || lead > 0xf4 || bytes.size() < length)
        return {};
    char32_t character = length == 1 ? lead : lead & (0x7fu >> length);
    for (std::size_t i = 1; i < length; ++i) {
        if ((at(i) & 0xc0) != 0x80)
            return {};
        character = character << 6 | (at(i) & 0x3f);
    }
    constexpr char32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
    const bool surrogate = character >= 0xd800 && character < 0xe000;
    if (character < least[length] || surrogate || character > 0x10ffff)
        return {};
    bytes.remove_prefix(length);
    return character;
}

void put(std::u16string& text, char32_t character) {
    if (character < 0x10000) {
        text += static_cast<char16_t>(character);
        return;
    }
    text += static_cast<char16_t>(0xd7c0 + (character >> 10));
    text += static_cast<char16_t>(0xdc00 + (character & 0x3ff));
}

/// UTF-16 of well-formed UTF-8; nothing for other bytes.
std::optional<std::u16string> plainDecoding(std::string_view bytes) {
    std::u16string text;
    while (!bytes.empty()) {
        const std::optional<char32_t> character = decode(bytes);
        if (!character)
            return {};
        put(text, *character);
    }
    return text;
}

void tryBytes(std::string_view bytes) {
    const std::u16string text = utf8_to_ustring(bytes);
    const std::optional<std::u16string> plain = plainDecoding(bytes);
    const std::string clean = sanitize_utf8(bytes);
    expect(utf16_length(bytes) == text.size(), "the length told before");
    if (plain) {
        expect(text == *plain, "UTF-16 of well-formed bytes");
        expect(ustring_to_utf8(text) == bytes, "bytes there and back");
        expect(clean == bytes, "well-formed bytes stay");
    } else {
        expect(text.find(u'\xfffd') != std::u16string::npos, "ill-formed bytes are replaced");
    }
    expect(plainDecoding(clean) == text, "the replaced text, by either way");
    expect(ustring_to_utf8_strict(text) == clean, "what was decoded is well-formed");
}

bool isWellFormed(std::u16string_view text) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool high = (text[i] & 0xfc00) == 0xd800;
        const bool paired = high && i + 1 < text.size() && (text[i + 1] & 0xfc00) == 0xdc00;
        if ((text[i] & 0xf800) == 0xd800 && !paired)
            return false;
        i += paired;
    }
    return true;
}

void tryUnits(const std::u16string& text) {
    const std::string bytes = ustring_to_utf8(text);
    const std::optional<std::string> strict = ustring_to_utf8_strict(text);
    expect(strict.has_value() == isWellFormed(text), "what the strict form refuses");
    expect(plainDecoding(bytes).has_value(), "UTF-8 is well-formed");
    if (strict) {
        expect(*strict == bytes, "both forms of well-formed text");
        expect(utf8_to_ustring(bytes) == text, "units there and back");
    }
    const matrix::Array array(matrix::hx::hxCreateString_UTF16(text));
    expect(matrix::hx::hxGetChars(array.get()) == text, "an array's units");
    expect(matrix::hx::hxArrayToStdString(array.get()) == bytes, "an array's text");
}

}  // namespace

void fuzzing::writeSeeds(const std::filesystem::path& folder) {
    const std::string_view texts[] = {"plain", "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80",
                                      "\xed\xa0\x80\xc0\xaf\xf5", "a\xf0\x9f\x98"};
    std::size_t number = 0;
    for (const std::string_view text : texts)
        writeSeed(folder, number++, text);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    tryBytes(bytes);
    std::u16string units(size / 2, u'\0');
    std::memcpy(units.data(), bytes.data(), units.size() * sizeof(char16_t));
    tryUnits(units);
    return 0;
}
