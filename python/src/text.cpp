#include "text.hpp"

#include <bit>

#include "zandor/runtime/text.hpp"

namespace vantrace {

namespace hx = matrix::hx;

namespace {

constexpr char32_t surrogatesBegin = 0x10000;

void appendCharacter(std::u16string& text, char32_t character) {
    if (character < surrogatesBegin) {
        text.push_back(static_cast<char16_t>(character));
        return;
    }
    const char32_t rest = character - surrogatesBegin;
    text.push_back(static_cast<char16_t>(0xD800 + (rest >> 10)));
    text.push_back(static_cast<char16_t>(0xDC00 + (rest & 0x3FF)));
}

}  // namespace

Ref strOf(std::u16string_view text) {
    int order = std::endian::native == std::endian::little ? -1 : 1;
    const auto bytes = static_cast<Py_ssize_t>(text.size() * sizeof(char16_t));
    return Ref::take(PyUnicode_DecodeUTF16(reinterpret_cast<const char*>(text.data()), bytes,
                                           "surrogatepass", &order));
}

Ref strOf(std::string_view text) {
    const auto bytes = static_cast<Py_ssize_t>(text.size());
    return Ref::take(PyUnicode_DecodeUTF8(text.data(), bytes, "replace"));
}

std::u16string utf16Of(PyObject* str) {
    check(PyUnicode_READY(str));
    const Py_ssize_t length = PyUnicode_GET_LENGTH(str);
    const int kind = PyUnicode_KIND(str);
    const void* data = PyUnicode_DATA(str);
    std::u16string text;
    text.reserve(static_cast<std::size_t>(length));
    for (Py_ssize_t i = 0; i < length; ++i)
        appendCharacter(text, PyUnicode_READ(kind, data, i));
    return text;
}

matrix::Array characterArrayOf(PyObject* str) {
    check(PyUnicode_READY(str));
    if (PyUnicode_IS_ASCII(str)) {
        const auto length = static_cast<std::size_t>(PyUnicode_GET_LENGTH(str));
        return matrix::create(static_cast<const char*>(PyUnicode_DATA(str)), length);
    }
    return matrix::Array(hx::hxCreateString_UTF16(utf16Of(str)));
}

std::string_view utf8Of(PyObject* str, Ref& owner) {
    Py_ssize_t length = 0;
    if (const char* text = PyUnicode_AsUTF8AndSize(str, &length)) [[likely]]
        return {text, static_cast<std::size_t>(length)};
    if (!PyErr_ExceptionMatches(PyExc_UnicodeEncodeError))
        throw PythonError();
    PyErr_Clear();
    owner = strOf(fl::i18n::ustring_to_utf8(utf16Of(str)));
    return utf8Of(owner.get(), owner);
}

}  // namespace vantrace
