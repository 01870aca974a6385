// Character arrays, from and to text.
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>

#include "zandor/runtime/array_layout.hpp"
#include "zandor/runtime/factory.hpp"
#include "zandor/runtime/text.hpp"

namespace matrix {

Array create(const char* utf8, std::size_t length) {
    const std::string_view text(utf8, length);
    Array array = detail::createChars(fl::i18n::utf16_length(text));
    fl::i18n::utf8_to_utf16(text, detail::payload<char16_t>(*array));
    return array;
}

namespace detail::noninlined::hx_array_api {

namespace {

std::u16string_view charsOf(const hxArray& array) noexcept {
    return {payload<char16_t>(array), elementCount(array)};
}

}  // namespace

hxArray* hxCreateString_UTF8(std::string_view utf8) {
    return create(utf8).release();
}

hxArray* hxCreateString_UTF16(std::u16string_view utf16) {
    Array array = createChars(utf16.size());
    if (!utf16.empty()) {
        std::memcpy(payload<void>(*array), utf16.data(), utf16.size() * sizeof(char16_t));
    }
    return array.release();
}

std::u16string_view hxGetChars(const hxArray* array) {
    requireClass(array, ClassId::character);
    return charsOf(*array);
}

std::string hxArrayToStdString(const hxArray* array) {
    if (!array || array->classId != ClassId::character) {
        throw kobs::factory::HostTypeError("argument must be text, got " + describe(array));
    }
    return fl::i18n::ustring_to_utf8(charsOf(*array));
}

char* hxArrayToString_UTF8(const hxArray* array) {
    if (!array || array->classId != ClassId::character)
        return nullptr;
    const auto text = fl::i18n::ustring_to_utf8_strict(charsOf(*array));
    if (!text)
        return nullptr;
    if (text->find('\0') != std::string::npos) {
        throw std::invalid_argument("text holds a NUL where zero-terminated text is needed");
    }
    char* copy = static_cast<char*>(std::malloc(text->size() + 1));
    if (!copy)
        throw std::bad_alloc();
    std::memcpy(copy, text->c_str(), text->size() + 1);
    return copy;
}

void hxFreeEx(void* text) noexcept {
    std::free(text);
}

}  // namespace detail::noninlined::hx_array_api
}  // namespace matrix
