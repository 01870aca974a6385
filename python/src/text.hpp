// Text between Python's str and the host's UTF-16 and UTF-8.
#pragma once

#include <string>
#include <string_view>

#include "python_api.hpp"
#include "zandor/runtime/array.hpp"

namespace vantrace {

/// The str of UTF-16 text; lone surrogates stay what they are.
Ref strOf(std::u16string_view text);
/// The str of UTF-8 text; ill-formed bytes become U+FFFD.
Ref strOf(std::string_view text);

/// The code units of a str; lone surrogates stay what they are.
std::u16string utf16Of(PyObject* str);
/// A character array.
matrix::Array characterArrayOf(PyObject* str);

/// UTF-8 of a str, alive as long as it or, where lone surrogates had to become U+FFFD, as `owner`.
std::string_view utf8Of(PyObject* str, Ref& owner);

}  // namespace vantrace
