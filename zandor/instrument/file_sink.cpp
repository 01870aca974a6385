#include "zandor/instrument/file_sink.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <new>
#include <string>
#include <system_error>
#include <utility>

namespace instrument::detail {

namespace {

namespace fs = std::filesystem;

/// Short whatever the target is called, so that it fits where the target's name does.
fs::path freshName() {
    static std::atomic<unsigned> last{0};
    return ".zandor-" + std::to_string(getpid()) + "-" + std::to_string(++last) + ".tmp";
}

bool isWrittenInPlace(const fs::path& target) {
    std::error_code ignored;
    const fs::file_status status = fs::status(target, ignored);
    return fs::exists(status) && !fs::is_regular_file(status);
}

fs::path withoutLink(const fs::path& target) {
    std::error_code error;
    fs::path real = fs::canonical(target, error);
    if (error == std::errc::not_enough_memory)
        throw std::bad_alloc();  // a link would be replaced, not what it names
    return error ? target : real;
}

/// Of an open file, whatever its other names.
std::array<char, 32> nameOfOpen(int descriptor) noexcept {
    std::array<char, 32> name{};
    std::snprintf(name.data(), name.size(), "/proc/self/fd/%d", descriptor);
    return name;
}

}  // namespace

FileSink::FileSink(const fs::path& target) : asked_(target), target_(withoutLink(target)) {
    if (isWrittenInPlace(target_))
        openItself();
    else
        openBeside();
}

void FileSink::openItself() {
    descriptor_ = open(target_.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY);
    if (descriptor_ < 0)
        fail(errno);
}

void FileSink::openBeside() {
    if (openNameless())
        return;
    do {
        temporary_ = target_.parent_path() / freshName();
        descriptor_ = open(temporary_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    } while (descriptor_ < 0 && errno == EEXIST);
    if (descriptor_ < 0) {
        temporary_.clear();
        fail(errno);
    }
}

/// False where the file system has no such files, or they could be given no name later.
bool FileSink::openNameless() {
    const fs::path folder = target_.parent_path();
    descriptor_ =
        open(folder.empty() ? "." : folder.c_str(), O_WRONLY | O_TMPFILE | O_CLOEXEC, 0666);
    isNameless_ = descriptor_ >= 0 && access(nameOfOpen(descriptor_).data(), F_OK) == 0;
    if (!isNameless_ && descriptor_ >= 0)
        ::close(std::exchange(descriptor_, -1));
    return isNameless_;
}

void FileSink::giveName() {
    const auto nameless = nameOfOpen(descriptor_);
    for (;;) {
        fs::path name = target_.parent_path() / freshName();
        if (linkat(AT_FDCWD, nameless.data(), AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW) == 0) {
            temporary_ = std::move(name);
            isNameless_ = false;
            return;
        }
        if (errno != EEXIST)
            fail(errno);
    }
}

FileSink::~FileSink() {
    if (descriptor_ >= 0)
        ::close(descriptor_);
    if (!temporary_.empty())
        unlink(temporary_.c_str());
}

void FileSink::write(std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = ::write(descriptor_, text.data(), text.size());
        if (written >= 0)
            text.remove_prefix(static_cast<std::size_t>(written));
        else if (errno != EINTR)
            fail(errno);
    }
}

void FileSink::commit() {
    close();
    if (temporary_.empty())
        return;
    if (std::rename(temporary_.c_str(), target_.c_str()) != 0)
        fail(errno);
    temporary_.clear();
}

void FileSink::close() {
    if (descriptor_ < 0)
        return;
    if (isNameless_)
        giveName();
    // Linux frees the descriptor whatever close says.
    if (::close(std::exchange(descriptor_, -1)) != 0 && errno != EINTR)
        fail(errno);
}

void FileSink::fail(int error) const {
    throw std::system_error(error, std::generic_category(), "cannot write " + asked_.string());
}

}  // namespace instrument::detail
