#include <bit>
#include <limits>
#include <utility>

#include "zandor/runtime/array_layout.hpp"
#include "zandor/runtime/text.hpp"
#include "zandor/runtime/value_words.hpp"
#include "zandor/runtime/zandor.hpp"

namespace zandor {

namespace hx = matrix::hx;

std::string describe(const Value& value) {
    switch (value.kind()) {
        case Value::Kind::none:
            return "nothing";
        case Value::Kind::logical:
            return "logical";
        case Value::Kind::integer:
        case Value::Kind::unsignedInteger:
        case Value::Kind::hugeInteger:
            return "integer";
        case Value::Kind::real:
            return "real";
        case Value::Kind::array:
            return matrix::detail::describe(value.asArray());
    }
    return "nothing";
}

namespace {

[[noreturn]] void throwKind(const char* wanted, const Value& value) {
    throw ArgumentError(std::string("the value is no ") + wanted + ": it is " + describe(value));
}

[[noreturn]] void throwRange(const char* wanted) {
    throw ArgumentRangeError(std::string("the value is out of range for ") + wanted);
}

}  // namespace

Value Value::array(matrix::Array value) noexcept {
    Value result(Kind::array, 0);
    result.array_ = std::move(value);
    return result;
}

Value Value::text(std::string_view utf8) {
    return array(matrix::create(utf8));
}

Value Value::texts(std::span<const std::string> utf8) {
    matrix::Array strings(hx::hxCreateStringArray(utf8.size(), 1));
    for (std::size_t i = 0; i < utf8.size(); ++i) {
        hx::hxSetString(strings.get(), i, fl::i18n::utf8_to_ustring(utf8[i]));
    }
    return array(std::move(strings));
}

bool Value::isNegative() const noexcept {
    switch (kind_) {
        case Kind::integer:
            return std::bit_cast<std::int64_t>(bits_) < 0;
        case Kind::hugeInteger:
            return bits_;
        default:
            return false;
    }
}

bool Value::asLogical() const {
    if (kind_ != Kind::logical)
        throwKind("logical", *this);
    return bits_;
}

std::int64_t Value::asInteger() const {
    switch (kind_) {
        case Kind::unsignedInteger:
            if (bits_ > std::numeric_limits<std::int64_t>::max())
                throwRange("a signed integer");
            [[fallthrough]];
        case Kind::integer:
            return std::bit_cast<std::int64_t>(bits_);
        case Kind::hugeInteger:
            throwRange("a signed integer");
        default:
            throwKind("integer", *this);
    }
}

std::uint64_t Value::asUnsignedInteger() const {
    switch (kind_) {
        case Kind::integer:
            if (isNegative())
                throwRange("an unsigned integer");
            [[fallthrough]];
        case Kind::unsignedInteger:
            return bits_;
        case Kind::hugeInteger:
            throwRange("an unsigned integer");
        default:
            throwKind("integer", *this);
    }
}

double Value::asReal() const {
    if (kind_ != Kind::real)
        throwKind("real", *this);
    return std::bit_cast<double>(bits_);
}

std::string Value::asText() const {
    const hxArray* text = asArray();
    if (kobs::factory::isStringVector(text) && hx::hxGetElementCount(text) == 1) {
        return fl::i18n::ustring_to_utf8(hx::hxGetString(text, 0));
    }
    if (hx::hxGetClassId(text) != matrix::ClassId::character)
        throwKind("text", *this);
    return fl::i18n::ustring_to_utf8(hx::hxGetChars(text));
}

const hxArray* Value::asArray() const {
    if (kind_ != Kind::array)
        throwKind("array", *this);
    return array_.get();
}

matrix::Array Value::takeArray() && {
    if (kind_ != Kind::array)
        throwKind("array", *this);
    kind_ = Kind::none;
    return std::move(array_);
}

}  // namespace zandor
