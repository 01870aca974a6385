// The file that a stream of samples goes to.
#pragma once

#include <cstddef>
#include <filesystem>
#include <span>

namespace vantrace {

/// In a run folder, named by this process and a moment. No descriptor stays open: programs may
/// close those that they did not open.
class StreamFile {
  public:
    explicit StreamFile(const std::filesystem::path& folder);

    /// False where there was no room for all of them: half an entry may be the file's last then,
    /// and nothing follows it.
    bool append(std::span<const std::byte> bytes) noexcept;
    const std::filesystem::path& path() const noexcept { return path_; }

  private:
    std::filesystem::path path_;
    bool isFull_ = false;
};

}  // namespace vantrace
