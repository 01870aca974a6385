// A folder for a test's files, gone with its object.
#pragma once

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace instrument::test_support {

class TemporaryFolder {
  public:
    TemporaryFolder() {
        std::string name = (std::filesystem::temp_directory_path() / "zandor_XXXXXX").string();
        if (!mkdtemp(name.data()))
            throw std::system_error(errno, std::generic_category(), name);
        path_ = name;
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::filesystem::path& path() const noexcept { return path_; }
    std::filesystem::path operator/(const std::filesystem::path& name) const {
        return path_ / name;
    }

  private:
    std::filesystem::path path_;
};

}  // namespace instrument::test_support
