// Argument cells as the plain values that bound functions take.
#pragma once

#include <bit>
#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

#include "vantrace/bridge/char_holder.hpp"
#include "zandor/runtime/class_system.hpp"
#include "zandor/runtime/factory.hpp"
#include "zandor/runtime/text.hpp"

namespace vantrace {

inline const hxArray* arrayIn(kobs::Cell cell) noexcept {
    return std::bit_cast<const hxArray*>(cell);
}

/// The plain value of one argument cell. Throws what the host's reporters throw.
template <typename Value>
Value fromCell(kobs::Cell cell);

template <>
inline bool fromCell<bool>(kobs::Cell cell) {
    return cell != 0;
}
template <>
inline std::int32_t fromCell<std::int32_t>(kobs::Cell cell) {
    return std::bit_cast<std::int32_t>(static_cast<std::uint32_t>(cell));
}
template <>
inline std::uint64_t fromCell<std::uint64_t>(kobs::Cell cell) {
    return cell;
}
template <>
inline double fromCell<double>(kobs::Cell cell) {
    return std::bit_cast<double>(cell);
}
template <>
std::string fromCell<std::string>(kobs::Cell cell);
template <>
fl::ustring fromCell<fl::ustring>(kobs::Cell cell);
/// No array is the empty list. Elements of a cell array that yield no UTF-8 text are left out.
template <>
std::vector<std::string> fromCell<std::vector<std::string>>(kobs::Cell cell);

/// One converted argument, which owns what a reference parameter refers to.
template <typename Parameter>
class Argument {
  public:
    explicit Argument(kobs::Cell cell) : value_(fromCell<Value>(cell)) {}
    const std::remove_cvref_t<Parameter>& get() const noexcept { return value_; }
    void validate() const { kobs::factory::impl::validateSelfPointer(value_); }
    void validateAsObject() const { validate(); }

  private:
    using Value = std::remove_cvref_t<Parameter>;
    Value value_;
};

/// A pointer to characters is checked only where it is the object that the method acts on.
template <>
class Argument<const char*> {
  public:
    explicit Argument(kobs::Cell cell) : text_(arrayIn(cell)) {}
    const char* get() const noexcept { return text_.get(); }
    void validate() const noexcept {}
    void validateAsObject() const { kobs::factory::impl::validateSelfPointer(get()); }

  private:
    kobs::factory::CharHolder text_;
};

/// The converted arguments of one call. The base holds the later ones, so that every compiler
/// converts from the last to the first and destroys in the reverse order; the order in which
/// the arguments of a call are evaluated would be the compiler's choice.
template <typename... Parameters>
class ArgumentPack;

template <>
class ArgumentPack<> {
  public:
    explicit ArgumentPack(const kobs::Cell*) noexcept {}
    void validate() const noexcept {}
    void validateObject() const noexcept {}
    template <typename Function, typename... Converted>
    decltype(auto) call(Function function, const Converted&... converted) const {
        return function(converted...);
    }
};

template <typename First, typename... Rest>
class ArgumentPack<First, Rest...> : private ArgumentPack<Rest...> {
    using Later = ArgumentPack<Rest...>;

  public:
    explicit ArgumentPack(const kobs::Cell* cells) : Later(cells + 1), first_(cells[0]) {}

    /// Has the host check every argument, from the last to the first.
    void validate() const {
        Later::validate();
        first_.validate();
    }
    /// Has the host check the first argument as the object that the method acts on.
    void validateObject() const { first_.validateAsObject(); }

    /// Calls `function` with what was converted so far and the arguments held here.
    template <typename Function, typename... Converted>
    decltype(auto) call(Function function, const Converted&... converted) const {
        return Later::call(function, converted..., first_.get());
    }

  private:
    Argument<First> first_;
};

}  // namespace vantrace
