#include "zandor/runtime/text.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <stdexcept>

#include "zandor/runtime/array.hpp"
#include "zandor/runtime/factory.hpp"
#include "zandor/runtime/path.hpp"
#include "zandor/runtime/testing/live_arrays.hpp"

namespace {

using namespace std::string_literals;
using fl::i18n::sanitize_utf8;
using fl::i18n::ustring_to_utf8;
using fl::i18n::ustring_to_utf8_strict;
using fl::i18n::utf16_length;
using fl::i18n::utf8_to_ustring;
using matrix::Array;
namespace hx = matrix::hx;

constexpr const char* replacement = "\xef\xbf\xbd";

struct Pair {
    std::string utf8;
    std::u16string utf16;
};

const Pair wellFormed[] = {
    {"", u""},
    {"a", u"a"},
    {"seven77", u"seven77"},
    {"eight888", u"eight888"},
    {"exactly sixteen.", u"exactly sixteen."},
    {"a NUL\0inside"s, u"a NUL\0inside"s},
    {"\xc3\xa9", u"\u00e9"},
    {"\xdf\xbf\xe0\xa0\x80", u"\u07ff\u0800"},
    {"\xed\x9f\xbf\xee\x80\x80", u"\ud7ff\ue000"},
    {"\xef\xbf\xbf", u"\uffff"},
    {"\xf0\x90\x80\x80", u"\U00010000"},
    {"\xf4\x8f\xbf\xbf", u"\U0010ffff"},
    {"long text with \xc3\xa9 in the middle of it", u"long text with \u00e9 in the middle of it"},
    {"\xf0\x9f\x8c\x8a wave and more ascii", u"\U0001f30a wave and more ascii"},
};

TEST(Utf8, AndUtf16AreTheSameTextInBothDirections) {
    for (const Pair& pair : wellFormed) {
        EXPECT_EQ(utf8_to_ustring(pair.utf8), pair.utf16) << pair.utf8;
        EXPECT_EQ(ustring_to_utf8(pair.utf16), pair.utf8);
        EXPECT_EQ(ustring_to_utf8_strict(pair.utf16), pair.utf8);
        EXPECT_EQ(utf16_length(pair.utf8), pair.utf16.size());
        EXPECT_EQ(sanitize_utf8(pair.utf8), pair.utf8);
    }
}

TEST(Utf8, EveryCodePointSurvives) {
    std::u16string all;
    for (char32_t c = 0; c <= 0x10ffff; ++c) {
        if (c >= 0xd800 && c < 0xe000)
            continue;
        if (c >= 0x10000) {
            all.push_back(static_cast<char16_t>(0xd7c0 + (c >> 10)));
            all.push_back(static_cast<char16_t>(0xdc00 + (c & 0x3ff)));
        } else {
            all.push_back(static_cast<char16_t>(c));
        }
    }
    const auto utf8 = ustring_to_utf8_strict(all);
    ASSERT_TRUE(utf8);
    EXPECT_EQ(utf8_to_ustring(*utf8), all);
}

TEST(IllFormedUtf8, BecomesOneReplacementForEachMaximalPart) {
    const std::pair<std::string, int> parts[] = {
        {"\x80", 1},              // a continuation alone
        {"\xc0\xaf", 2},          // overlong
        {"\xe2\x82", 1},          // cut short: one part
        {"\xf0\x9f\x8c", 1},      // cut short: one part
        {"\xed\xa0\x80", 3},      // a surrogate
        {"\xf4\x90\x80\x80", 4},  // beyond the last code point
        {"\xf5", 1},
        {"\xff\xfe", 2},
    };
    for (const auto& [bytes, count] : parts) {
        std::string wanted = "<";
        for (int i = 0; i < count; ++i)
            wanted += replacement;
        wanted += ">";
        const std::string text = "<" + bytes + ">";
        EXPECT_EQ(sanitize_utf8(text), wanted);
        EXPECT_EQ(ustring_to_utf8(utf8_to_ustring(text)), wanted);
        EXPECT_EQ(utf8_to_ustring(text).size(), utf16_length(text));
    }
}

TEST(IllFormedUtf8, AtTheVeryEndIsReplaced) {
    EXPECT_EQ(sanitize_utf8("eight888\xe2\x82"), std::string("eight888") + replacement);
    EXPECT_EQ(sanitize_utf8("\xf0"), replacement);
}

TEST(IllFormedUtf16, IsReplacedOrRefused) {
    const std::u16string lone[] = {
        {u'a', 0xd800, u'b'}, {0xdc00}, {0xdc00, 0xd800}, {u'a', 0xdbff}};
    for (const std::u16string& text : lone) {
        EXPECT_NE(ustring_to_utf8(text).find(replacement), std::string::npos);
        EXPECT_EQ(ustring_to_utf8_strict(text), std::nullopt);
    }
    EXPECT_EQ(ustring_to_utf8(lone[0]), "a"s + replacement + "b");
    EXPECT_EQ(ustring_to_utf8(lone[2]), std::string(replacement) + replacement);
}

TEST(AnyBytes, GiveWellFormedTextOfTheLengthThatWasAnnounced) {
    std::mt19937 random(7);
    for (int round = 0; round < 20'000; ++round) {
        std::string bytes(random() % 40, '\0');
        for (char& byte : bytes) {
            byte = static_cast<char>(random() % 3 ? random() % 128 : random() % 256);
        }
        const std::u16string utf16 = utf8_to_ustring(bytes);
        ASSERT_EQ(utf16.size(), utf16_length(bytes));
        const auto again = ustring_to_utf8_strict(utf16);
        ASSERT_TRUE(again);
        ASSERT_EQ(*again, sanitize_utf8(bytes));
    }
}

TEST(CharacterArrays, AreRowsOfUtf16FromUtf8) {
    const Array array = matrix::create("so\xc3\xa9lve", 5);
    EXPECT_EQ(hx::hxGetClassId(array.get()), matrix::ClassId::character);
    EXPECT_EQ(hx::hxGetRows(array.get()), 1u);
    EXPECT_EQ(hx::hxGetColumns(array.get()), 4u);
    EXPECT_EQ(hx::hxGetChars(array.get()), u"so\u00e9l");
    EXPECT_EQ(hx::hxArrayToStdString(array.get()), "so\xc3\xa9l");
}

TEST(CharacterArrays, OfEmptyTextAreZeroByZero) {
    const Array fromUtf8 = matrix::create(nullptr, 0);
    const Array fromUtf16(hx::hxCreateString_UTF16(u""));
    for (const Array* each : {&fromUtf8, &fromUtf16}) {
        EXPECT_EQ(hx::hxGetRows(each->get()), 0u);
        EXPECT_EQ(hx::hxGetColumns(each->get()), 0u);
        EXPECT_EQ(hx::hxArrayToStdString(each->get()), "");
    }
}

TEST(CharacterArrays, KeepWhatTheyWereGiven) {
    const std::u16string odd{u'a', 0, 0xd800, u'b'};
    const Array array(hx::hxCreateString_UTF16(odd));
    EXPECT_EQ(hx::hxGetChars(array.get()), odd);
    const Array utf8(hx::hxCreateString_UTF8("a\xff"));
    EXPECT_EQ(hx::hxGetChars(utf8.get()), u"a\ufffd");
}

struct Free {
    void operator()(char* text) const { hx::hxFreeEx(text); }
};
using Text = std::unique_ptr<char, Free>;

TEST(ZeroTerminatedText, IsTheUtf8OfTheArray) {
    const Array array = matrix::create("so\xc3\xa9lve");
    const Text text(hx::hxArrayToString_UTF8(array.get()));
    EXPECT_STREQ(text.get(), "so\xc3\xa9lve");
    const Array empty = matrix::create("");
    EXPECT_STREQ(Text(hx::hxArrayToString_UTF8(empty.get())).get(), "");
}

TEST(ZeroTerminatedText, IsNoneForWhatIsNoWellFormedText) {
    EXPECT_EQ(hx::hxArrayToString_UTF8(nullptr), nullptr);
    const Array number(hx::hxCreateDoubleScalar(1));
    EXPECT_EQ(hx::hxArrayToString_UTF8(number.get()), nullptr);
    const Array lone(hx::hxCreateString_UTF16(std::u16string{u'a', 0xd800}));
    EXPECT_EQ(hx::hxArrayToString_UTF8(lone.get()), nullptr);
    hx::hxFreeEx(nullptr);
}

TEST(ZeroTerminatedText, RefusesANulInside) {
    const Array array = matrix::create("a\0b"s);
    EXPECT_THROW(hx::hxArrayToString_UTF8(array.get()), std::invalid_argument);
    EXPECT_EQ(hx::hxArrayToStdString(array.get()), "a\0b"s);
}

std::string refusal(const hxArray* array) {
    try {
        hx::hxArrayToStdString(array);
    } catch (const kobs::factory::HostTypeError& error) {
        return error.what();
    }
    return "";
}

TEST(TextOfAnArray, ReplacesIllFormedParts) {
    const Array lone(hx::hxCreateString_UTF16(std::u16string{u'a', 0xd800}));
    EXPECT_EQ(hx::hxArrayToStdString(lone.get()), "a"s + replacement);
}

TEST(TextOfAnArray, SaysWhatItGotInsteadOfText) {
    const Array number(hx::hxCreateDoubleScalar(1));
    const Array numbers = matrix::detail::do_create_uninitnumeric(matrix::ClassId::int32, 2, 2);
    const Array cell = matrix::detail::do_create_cell(1, 1);
    EXPECT_EQ(refusal(number.get()), "argument must be text, got double");
    EXPECT_EQ(refusal(numbers.get()), "argument must be text, got int32 array");
    EXPECT_EQ(refusal(cell.get()), "argument must be text, got cell array");
    EXPECT_EQ(refusal(nullptr), "argument must be text, got nothing");
}

TEST(Paths, StayAsTheyAreInNativeForm) {
    using fl::filesystem::basic_path;
    using fl::filesystem::detail::make_native_form;
    EXPECT_EQ(make_native_form(u"/a//b\\c/", false), u"/a//b\\c/");
    EXPECT_EQ(make_native_form(u"//a///b/", true), u"/a/b/");
    EXPECT_EQ(basic_path(make_native_form(u"/\u00e9", false)).utf8(), "/\xc3\xa9");
    EXPECT_TRUE(basic_path().empty());
}

}  // namespace
