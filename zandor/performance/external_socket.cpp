#include "zandor/performance/external_socket.hpp"

#include <dirent.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "zandor/client/runtime_folder.hpp"
#include "zandor/client/test_point.h"

namespace instrument::detail {

using zandor::client::addressIn;
using zandor::client::hostPrefix;

namespace {

constexpr int backlog = 128;

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

FileDescriptor openFolder() {
    FileDescriptor folder(zandor::client::openRuntimeFolder(zandor::client::runtimeFolders()));
    if (!folder)
        throw std::runtime_error(
            "external events: there is no runtime folder that belongs to this user alone");
    return folder;
}

FileDescriptor makeSocket() {
    FileDescriptor socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket)
        fail("external events: socket");
    return socket;
}

bool isLeftOver(int folder, const char* name) noexcept {
    const FileDescriptor socket(
        ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const sockaddr_un address = addressIn(folder, name);
    return socket &&
           connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) !=
               0 &&
           errno == ECONNREFUSED;
}

void removeLeftOvers(int folder) {
    struct CloseFolder {
        void operator()(DIR* open) const noexcept { closedir(open); }
    };
    const int copy = openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const std::unique_ptr<DIR, CloseFolder> entries(copy < 0 ? nullptr : fdopendir(copy));
    while (const dirent* entry = entries ? readdir(entries.get()) : nullptr)
        if (std::string_view(entry->d_name).starts_with(hostPrefix) &&
            isLeftOver(folder, entry->d_name))
            unlinkat(folder, entry->d_name, 0);
}

std::string newName() {
    static std::atomic<unsigned> count{0};
    return std::to_string(getpid()) + "-" + std::to_string(++count);
}

}  // namespace

ExternalSocket::ExternalSocket() : folder_(openFolder()), socket_(makeSocket()) {
    removeLeftOvers(folder_.get());
    const std::string number = newName();
    const std::string early = "new-" + number;
    name_ = hostPrefix + number;
    const sockaddr_un address = addressIn(folder_.get(), early.c_str());
    unlinkat(folder_.get(), early.c_str(), 0);
    if (bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        fail("external events: the socket's name");
    ZANDOR_TEST_POINT("host.bound");
    // Under its final name it listens: clients that see it can connect at once.
    if (listen(socket_.get(), backlog) != 0 ||
        renameat(folder_.get(), early.c_str(), folder_.get(), name_.c_str()) != 0) {
        const int error = errno;
        unlinkat(folder_.get(), early.c_str(), 0);
        errno = error;
        fail("external events: listening");
    }
    ZANDOR_TEST_POINT("host.listening");
}

ExternalSocket::~ExternalSocket() {
    unlinkat(folder_.get(), name_.c_str(), 0);
}

FileDescriptor ExternalSocket::accept() const noexcept {
    return FileDescriptor(accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
}

}  // namespace instrument::detail
