#include "zandor/instrument/printable_text.hpp"

#include <algorithm>

#include "zandor/runtime/text.hpp"

namespace instrument::detail {

namespace {

/// How many bytes of a character that breaks lines or is a control stand at the front.
std::size_t unprintableSize(std::string_view text) noexcept {
    const auto first = static_cast<unsigned char>(text[0]);
    if (first < 0x20 || first == 0x7f)
        return 1;
    if (first == 0xc2 && static_cast<unsigned char>(text[1]) < 0xa0)  // U+0080 to U+009F
        return 2;
    return text.starts_with("\u2028") || text.starts_with("\u2029") ? 3 : 0;
}

}  // namespace

std::string printableName(std::string_view name) {
    if (name.empty())
        return "(unnamed)";
    const std::string text = fl::i18n::sanitize_utf8(name);
    std::string printable;
    printable.reserve(text.size());
    for (std::string_view rest = text; !rest.empty();) {
        const std::size_t unprintable = unprintableSize(rest);
        printable += unprintable ? ' ' : rest[0];
        rest.remove_prefix(std::max<std::size_t>(unprintable, 1));
    }
    return printable;
}

std::string frameName(std::string_view name) {
    std::string frame = printableName(name);
    std::replace(frame.begin(), frame.end(), ';', ',');
    return frame;
}

}  // namespace instrument::detail
