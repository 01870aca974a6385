// Paths of files.
#pragma once

#include <string>
#include <string_view>

#include "zandor/runtime/export.hpp"
#include "zandor/runtime/text.hpp"

namespace fl::filesystem {

namespace detail {
/// The system's own form of a path. Here every character but '/' stands for itself, so the text
/// stays as it is; with `collapse`, a run of separators becomes one.
ZANDOR_RUNTIME_API fl::ustring make_native_form(const fl::ustring& path, bool collapse);
}  // namespace detail

/// A path in native form.
class ZANDOR_RUNTIME_API basic_path {
  public:
    basic_path() = default;
    explicit basic_path(fl::ustring native) : native_(std::move(native)) {}
    bool empty() const noexcept { return native_.empty(); }
    const fl::ustring& native() const noexcept { return native_; }
    /// The bytes that the system's calls take.
    std::string utf8() const { return i18n::ustring_to_utf8(native_); }

  private:
    fl::ustring native_;
};

}  // namespace fl::filesystem
