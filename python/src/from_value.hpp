// Host values as Python objects.
#pragma once

#include <memory>
#include <string_view>
#include <unordered_map>

#include "python_api.hpp"
#include "zandor/runtime/zandor.hpp"

namespace vantrace {

/// An array, or a part of one, that several Python objects look at; the last destroys it.
using SharedArray = std::shared_ptr<const hxArray>;

/// None, bool, int or float for scalars, str for text, list for cells and lists of strings,
/// StructArray for struct arrays.
Ref fromValue(zandor::Value&& value);

/// The same for an array inside another: `array` is a part of what `owner` keeps. Null is None.
Ref fromArray(const hxArray* array, const SharedArray& owner);

/// Makes one str for all equal texts of a long column.
class StrCache {
  public:
    Ref strOf(std::u16string_view text);

  private:
    /// Texts beyond this many are made one by one: a column of distinct ones gains nothing.
    static constexpr std::size_t most = 4096;
    std::unordered_map<std::u16string_view, Ref> known_;  ///< views of the array's own texts
};

}  // namespace vantrace
