// An open file that is closed with its owner, and in a child after fork.
//
// What a child kept of a host's sockets would look to clients as if the host lived on when it is
// dead.
#pragma once

#include <utility>

#include "zandor/performance/export.hpp"

namespace instrument::detail {

class ZANDOR_PERFORMANCE_API FileDescriptor {
  public:
    FileDescriptor() noexcept = default;
    explicit FileDescriptor(int file) noexcept;
    FileDescriptor(FileDescriptor&& other) noexcept : file_(std::exchange(other.file_, -1)) {}
    FileDescriptor& operator=(FileDescriptor other) noexcept {
        std::swap(file_, other.file_);
        return *this;
    }
    ~FileDescriptor();
    int get() const noexcept { return file_; }
    explicit operator bool() const noexcept { return file_ >= 0; }

  private:
    int file_ = -1;
};

/// Whether the process may open so many files more. `any` is one that is open.
bool areFilesLeft(int any, int count) noexcept;

}  // namespace instrument::detail
