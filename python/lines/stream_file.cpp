#include "stream_file.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "zandor/instrument/clock.hpp"

namespace vantrace {

namespace {

bool writeAll(int file, std::span<const std::byte> bytes) noexcept {
    while (!bytes.empty()) {
        const ssize_t put = write(file, bytes.data(), bytes.size());
        if (put < 0 && errno == EINTR)
            continue;
        if (put <= 0)
            return false;
        bytes = bytes.subspan(static_cast<std::size_t>(put));
    }
    return true;
}

}  // namespace

StreamFile::StreamFile(const std::filesystem::path& folder)
    : path_(folder / (std::to_string(getpid()) + "-" + std::to_string(instrument::clock::now()) +
                      ".lines")) {}

bool StreamFile::append(std::span<const std::byte> bytes) noexcept {
    if (isFull_)
        return false;
    const int file = open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    isFull_ = file < 0 || !writeAll(file, bytes);
    if (file >= 0)
        close(file);
    return !isFull_;
}

}  // namespace vantrace
