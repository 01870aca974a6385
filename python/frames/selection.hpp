// Which functions are events of their own.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace vantrace {

/// Patterns are those of the shell, for whole names.
struct Selection {
    std::vector<std::string> include;    ///< where there are any, only matching names are recorded
    std::vector<std::string> exclude;    ///< matching names are not
    std::vector<std::string> libraries;  ///< folders, each with its last slash
    std::string own;                     ///< the folder of this package, with its last slash
    bool withLibraries = false;

    bool isOwn(std::string_view file) const noexcept { return file.starts_with(own); }
    /// Whether a file is none of the user's own: of the standard library, or installed.
    bool isLibrary(std::string_view file) const noexcept;
    /// Whether the function of that name is an event of its own.
    bool isRecorded(const std::string& name, bool ofLibrary) const noexcept;
};

}  // namespace vantrace
