#include "zandor/performance/file_descriptor.hpp"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>

namespace instrument::detail {

namespace {

constexpr std::size_t bits = 64;

/// The files that are open, a bit each. Those beyond stay open in a child.
constinit std::array<std::atomic<std::uint64_t>, 1024> openFiles{};

std::uint64_t bitOf(int file) noexcept {
    return std::uint64_t{1} << (static_cast<std::size_t>(file) % bits);
}

/// Null where there is none for the file.
std::atomic<std::uint64_t>* wordOf(int file) noexcept {
    const std::size_t word = static_cast<std::size_t>(file) / bits;
    return word < openFiles.size() ? &openFiles[word] : nullptr;
}

void closeInChild() noexcept {
    for (std::size_t word = 0; word < openFiles.size(); ++word)
        for (std::uint64_t left = openFiles[word].exchange(0); left != 0; left &= left - 1)
            ::close(static_cast<int>(word * bits) + std::countr_zero(left));
}

}  // namespace

FileDescriptor::FileDescriptor(int file) noexcept : file_(file) {
    static const int watchesForks = pthread_atfork(nullptr, nullptr, closeInChild);
    static_cast<void>(watchesForks);
    if (std::atomic<std::uint64_t>* const word = file >= 0 ? wordOf(file) : nullptr)
        word->fetch_or(bitOf(file));
}

/// Nothing where the fork closed it.
FileDescriptor::~FileDescriptor() {
    if (file_ < 0)
        return;
    std::atomic<std::uint64_t>* const word = wordOf(file_);
    if (!word || (word->fetch_and(~bitOf(file_)) & bitOf(file_)) != 0)
        ::close(file_);
}

bool areFilesLeft(int any, int count) noexcept {
    const FileDescriptor one(fcntl(any, F_DUPFD_CLOEXEC, 0));
    return one && (count == 1 || areFilesLeft(any, count - 1));
}

}  // namespace instrument::detail
