#include "zandor/runtime/path.hpp"

#include <algorithm>

namespace fl::filesystem::detail {

fl::ustring make_native_form(const fl::ustring& path, bool collapse) {
    fl::ustring native = path;
    if (collapse) {
        const auto repeated = [](char16_t left, char16_t right) {
            return left == u'/' && right == u'/';
        };
        native.erase(std::unique(native.begin(), native.end(), repeated), native.end());
    }
    return native;
}

}  // namespace fl::filesystem::detail
