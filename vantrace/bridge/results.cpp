#include "vantrace/bridge/results.hpp"

#include <bit>
#include <cstddef>

namespace vantrace {

namespace hx = matrix::hx;

kobs::Cell toCell(const fl::ustring& text) {
    return std::bit_cast<kobs::Cell>(hx::hxCreateString_UTF16(text));
}

kobs::Cell toCell(const std::vector<std::string>& texts) {
    matrix::Array cell(hx::hxCreateCellMatrix(texts.size(), 1));
    for (std::size_t index = 0; index < texts.size(); ++index)
        hx::hxSetCell(cell.get(), index, hx::hxCreateString_UTF8(texts[index]));
    return std::bit_cast<kobs::Cell>(matrix::to_zandor(std::move(cell)));
}

kobs::Cell toCell(kobs::factory::hxArrayProxy result) {
    return std::bit_cast<kobs::Cell>(result.release());
}

bool takesResult(std::int32_t& requested, std::string_view dataType) {
    if (requested == 0)
        requested = 1;
    if (requested < 0)
        return false;
    kobs::internal::makeInterned(dataType);
    return true;
}

}  // namespace vantrace
