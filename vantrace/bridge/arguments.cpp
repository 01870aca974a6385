#include "vantrace/bridge/arguments.hpp"

#include <cstddef>

namespace vantrace {

namespace hx = matrix::hx;

namespace {

std::vector<std::string> fromStringVector(const hxArray* array) {
    const std::vector<fl::ustring> texts = kobs::factory::extractFromStringVector(array);
    std::vector<std::string> list;
    list.reserve(texts.size());
    for (const fl::ustring& text : texts)
        list.push_back(fl::i18n::ustring_to_utf8(text));
    return list;
}

std::vector<std::string> fromCellArray(const hxArray* array) {
    const std::size_t count = hx::hxGetElementCount(array);
    std::vector<std::string> list;
    list.reserve(count);
    for (std::size_t index = 0; index < count; ++index) {
        const hxArray* element = hx::hxGetCell(array, index);
        if (!element || hx::hxGetClassId(element) != matrix::ClassId::character)
            kobs::factory::errorMustBeString(index);
        const kobs::factory::CharHolder text(element);
        if (text.get())
            list.emplace_back(text.get());
    }
    return list;
}

}  // namespace

template <>
std::string fromCell<std::string>(kobs::Cell cell) {
    return hx::hxArrayToStdString(arrayIn(cell));
}

template <>
fl::ustring fromCell<fl::ustring>(kobs::Cell cell) {
    return kobs::factory::extractString(arrayIn(cell));
}

template <>
std::vector<std::string> fromCell<std::vector<std::string>>(kobs::Cell cell) {
    const hxArray* array = arrayIn(cell);
    if (!array)
        return {};
    if (kobs::factory::isStringVector(array))
        return fromStringVector(array);
    if (hx::hxGetClassId(array) != matrix::ClassId::cell)
        kobs::factory::errorMustBeCellArray();
    return fromCellArray(array);
}

}  // namespace vantrace
