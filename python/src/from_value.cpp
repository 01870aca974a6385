#include "from_value.hpp"

#include <cstdint>

#include "struct_array.hpp"
#include "text.hpp"

namespace vantrace {

namespace hx = matrix::hx;
using matrix::ClassId;
using zandor::Value;

namespace {

/// A list with one object for each number below `count`.
template <typename Make>
Ref listOf(std::size_t count, Make make) {
    Ref list = Ref::take(PyList_New(static_cast<Py_ssize_t>(count)));
    for (std::size_t i = 0; i < count; ++i)
        PyList_SET_ITEM(list.get(), static_cast<Py_ssize_t>(i), make(i).release());
    return list;
}

template <typename T>
T elementOf(const hxArray* array, std::size_t index) {
    return static_cast<const T*>(hx::hxGetData(array))[index];
}

Ref numberOf(const hxArray* array, std::size_t index) {
    switch (hx::hxGetClassId(array)) {
        case ClassId::logical:
            return Ref::take(PyBool_FromLong(elementOf<std::uint8_t>(array, index)));
        case ClassId::int32:
            return Ref::take(PyLong_FromLong(elementOf<std::int32_t>(array, index)));
        case ClassId::uint64:
            return Ref::take(PyLong_FromUnsignedLongLong(elementOf<std::uint64_t>(array, index)));
        default:
            return Ref::take(PyFloat_FromDouble(elementOf<double>(array, index)));
    }
}

Ref fromNumbers(const hxArray* array) {
    const std::size_t count = hx::hxGetElementCount(array);
    if (count == 1)
        return numberOf(array, 0);
    return listOf(count, [&](std::size_t i) { return numberOf(array, i); });
}

}  // namespace

Ref fromArray(const hxArray* array, const SharedArray& owner) {
    if (!array)
        return Ref::share(Py_None);
    const std::size_t count = hx::hxGetElementCount(array);
    switch (hx::hxGetClassId(array)) {
        case ClassId::character:
            return strOf(hx::hxGetChars(array));
        case ClassId::string:
            return listOf(count, [&](std::size_t i) { return strOf(hx::hxGetString(array, i)); });
        case ClassId::cell:
            return listOf(count,
                          [&](std::size_t i) { return fromArray(hx::hxGetCell(array, i), owner); });
        case ClassId::structure:
            return newStructArray(SharedArray(owner, array));
        default:
            return fromNumbers(array);
    }
}

Ref fromValue(Value&& value) {
    switch (value.kind()) {
        case Value::Kind::logical:
            return Ref::take(PyBool_FromLong(value.asLogical()));
        case Value::Kind::integer:
            return Ref::take(PyLong_FromLongLong(value.asInteger()));
        case Value::Kind::unsignedInteger:
            return Ref::take(PyLong_FromUnsignedLongLong(value.asUnsignedInteger()));
        case Value::Kind::real:
            return Ref::take(PyFloat_FromDouble(value.asReal()));
        case Value::Kind::array: {
            const SharedArray array(std::move(value).takeArray());
            return fromArray(array.get(), array);
        }
        default:
            return Ref::share(Py_None);
    }
}

Ref StrCache::strOf(std::u16string_view text) {
    const auto found = known_.find(text);
    if (found != known_.end())
        return Ref::share(found->second.get());
    Ref str = vantrace::strOf(text);
    if (known_.size() < most)
        known_.emplace(text, Ref::share(str.get()));
    return str;
}

}  // namespace vantrace
