// An open file that is closed with its owner.
#pragma once

#include <unistd.h>

#include <utility>

namespace instrument::detail {

class FileDescriptor {
  public:
    FileDescriptor() noexcept = default;
    explicit FileDescriptor(int file) noexcept : file_(file) {}
    FileDescriptor(FileDescriptor&& other) noexcept : file_(std::exchange(other.file_, -1)) {}
    FileDescriptor& operator=(FileDescriptor other) noexcept {
        std::swap(file_, other.file_);
        return *this;
    }
    ~FileDescriptor() {
        if (file_ >= 0)
            ::close(file_);
    }
    int get() const noexcept { return file_; }
    explicit operator bool() const noexcept { return file_ >= 0; }

  private:
    int file_ = -1;
};

}  // namespace instrument::detail
