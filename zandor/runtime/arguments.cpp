#include "zandor/runtime/arguments.hpp"

#include <bit>
#include <iterator>
#include <limits>
#include <utility>

#include "zandor/runtime/value_words.hpp"

namespace zandor {

namespace hx = matrix::hx;
using kobs::Cell;
using kobs::factory::CellKind;

namespace {

[[noreturn]] void throwCount(const Method::Node& method, std::size_t got) {
    const std::size_t wanted = method.inputs.size();
    const std::string count = wanted ? std::to_string(wanted) : "no";
    throw ArgumentError(method.description.fullName + " takes " + count +
                        (wanted == 1 ? " argument, got " : " arguments, got ") +
                        std::to_string(got));
}

const char* wantedWords(CellKind kind) noexcept {
    switch (kind) {
        case CellKind::logical:
            return "a logical (logical scalar)";
        case CellKind::int32:
            return "an integer (int32 scalar)";
        case CellKind::uint64:
            return "an integer (uint64 scalar)";
        default:
            return "a number (double scalar)";
    }
}

std::string integerWords(const Value& value) {
    using Integer = std::numeric_limits<std::int64_t>;
    using Unsigned = std::numeric_limits<std::uint64_t>;
    if (value.kind() == Value::Kind::hugeInteger) {
        return value.isNegative() ? "an integer below " + std::to_string(Integer::min())
                                  : "an integer above " + std::to_string(Unsigned::max());
    }
    return value.isNegative() ? std::to_string(value.asInteger())
                              : std::to_string(value.asUnsignedInteger());
}

/// One scalar argument on its way into its cell.
struct Scalar {
    const Method::Node& method;
    std::size_t position;  ///< zero-based
    const Value& value;

    std::string place() const {
        return method.description.fullName + ": argument " + std::to_string(position + 1);
    }

    [[noreturn]] void throwKind() const {
        const bool array = value.kind() == Value::Kind::array;
        const std::string got = array ? "an array (" + describe(value) + ")" : describe(value);
        throw ArgumentError(place() + " must be " + wantedWords(method.inputs[position]) +
                            ", got " + got);
    }

    template <typename T>
    [[noreturn]] void throwRange() const {
        throw ArgumentRangeError(
            place() + " must be from " + std::to_string(std::numeric_limits<T>::min()) + " to " +
            std::to_string(std::numeric_limits<T>::max()) + ", got " + integerWords(value));
    }

    [[noreturn]] void throwTooLargeForReal() const {
        throw ArgumentRangeError(place() + " must be an integer of 64 bits or a real, got " +
                                 integerWords(value));
    }

    template <typename T>
    T integer() const {
        if (value.kind() == Value::Kind::hugeInteger)
            throwRange<T>();
        if (value.kind() == Value::Kind::unsignedInteger || !value.isNegative()) {
            return narrowed<T>(value.asUnsignedInteger());
        }
        return narrowed<T>(value.asInteger());
    }

    template <typename T, typename Wide>
    T narrowed(Wide wide) const {
        if (!std::in_range<T>(wide))
            throwRange<T>();
        return static_cast<T>(wide);
    }

    double real() const {
        switch (value.kind()) {
            case Value::Kind::real:
                return value.asReal();
            case Value::Kind::integer:
                return static_cast<double>(value.asInteger());
            case Value::Kind::unsignedInteger:
                return static_cast<double>(value.asUnsignedInteger());
            case Value::Kind::hugeInteger:
                throwTooLargeForReal();
            default:
                throwKind();
        }
    }

    void requireInteger() const {
        if (!isInteger(value.kind()))
            throwKind();
    }

    static bool isInteger(Value::Kind kind) noexcept {
        return kind == Value::Kind::integer || kind == Value::Kind::unsignedInteger ||
               kind == Value::Kind::hugeInteger;
    }

    Cell cell() const {
        switch (method.inputs[position]) {
            case CellKind::logical:
                if (value.kind() != Value::Kind::logical)
                    throwKind();
                return value.asLogical();
            case CellKind::int32:
                requireInteger();
                return static_cast<std::uint32_t>(integer<std::int32_t>());
            case CellKind::uint64:
                requireInteger();
                return integer<std::uint64_t>();
            default:
                return std::bit_cast<Cell>(real());
        }
    }
};

Cell cellOf(const hxArray* array) noexcept {
    return std::bit_cast<Cell>(array);
}

/// The array that a scalar is by nature.
matrix::Array arrayOf(const Value& value) {
    using Kind = Value::Kind;
    switch (value.kind()) {
        case Kind::logical:
            return matrix::Array(hx::hxCreateLogicalScalar(value.asLogical()));
        case Kind::real:
            return matrix::Array(hx::hxCreateDoubleScalar(value.asReal()));
        case Kind::hugeInteger: {
            const double infinity = std::numeric_limits<double>::infinity();
            return matrix::Array(
                hx::hxCreateDoubleScalar(value.isNegative() ? -infinity : infinity));
        }
        default:
            break;
    }
    if (!value.isNegative()) {
        const std::uint64_t number = value.asUnsignedInteger();
        return matrix::Array(std::in_range<std::int32_t>(number)
                                 ? hx::hxCreateInt32Scalar(static_cast<std::int32_t>(number))
                                 : hx::hxCreateUint64Scalar(number));
    }
    const std::int64_t number = value.asInteger();
    return matrix::Array(std::in_range<std::int32_t>(number)
                             ? hx::hxCreateInt32Scalar(static_cast<std::int32_t>(number))
                             : hx::hxCreateDoubleScalar(static_cast<double>(number)));
}

}  // namespace

ArgumentCells::ArgumentCells(const Method::Node& method, std::span<const Value> arguments)
    : cells_(few_) {
    const std::size_t count = arguments.size();
    if (count != method.inputs.size())
        throwCount(method, count);
    if (count > std::size(few_)) {
        many_.resize(count);
        cells_ = many_.data();
    }
    for (std::size_t i = count; i-- > 0;) {
        const bool scalar = method.inputs[i] != CellKind::array;
        cells_[i] = scalar ? Scalar{method, i, arguments[i]}.cell() : arrayCell(arguments[i]);
    }
}

Cell ArgumentCells::arrayCell(const Value& argument) {
    if (argument.kind() == Value::Kind::none)
        return cellOf(nullptr);
    if (argument.kind() == Value::Kind::array)
        return cellOf(argument.asArray());
    made_.push_back(arrayOf(argument));
    return cellOf(made_.back().get());
}

}  // namespace zandor
