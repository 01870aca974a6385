// Where clients and hosts meet: a folder of the user's own, found the same way by both.
#pragma once

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace zandor::client {

/// The names of hosts' sockets there begin so; others are not sockets, or not ready.
inline constexpr char hostPrefix[] = "host-";

/// The folders that come into question, by what the environment says; empty ones do not. A longer
/// path than there is room for does not either: cut off it would be another folder's.
struct RuntimeFolders {
    char paths[2][256];
};

inline RuntimeFolders runtimeFolders() noexcept {
    RuntimeFolders folders{};
    constexpr char below[] = "/zandor";
    const auto isUsable = [](const char* path) {
        return path && *path == '/' && strlen(path) + sizeof below <= sizeof folders.paths[0];
    };
    const char* chosen = getenv("ZANDOR_RUNTIME_DIR");
    const char* user = getenv("XDG_RUNTIME_DIR");
    if (isUsable(chosen)) {
        snprintf(folders.paths[0], sizeof folders.paths[0], "%s", chosen);
        return folders;
    }
    if (isUsable(user))
        snprintf(folders.paths[0], sizeof folders.paths[0], "%s%s", user, below);
    snprintf(folders.paths[1], sizeof folders.paths[1], "/tmp/zandor-%u", geteuid());
    return folders;
}

/// Opens a folder, made where there is none. Negative where it cannot be made, or is not the user's
/// alone.
inline int openRuntimeFolder(const char* path) noexcept {
    if (!*path)
        return -1;
    mkdir(path, 0700);
    const int folder = open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (folder < 0)
        return -1;
    struct stat status;
    if (fstat(folder, &status) == 0 && status.st_uid == geteuid() && (status.st_mode & 077) == 0)
        return folder;
    close(folder);
    return -1;
}

/// The first that can be opened.
inline int openRuntimeFolder(const RuntimeFolders& folders) noexcept {
    const int folder = openRuntimeFolder(folders.paths[0]);
    return folder >= 0 ? folder : openRuntimeFolder(folders.paths[1]);
}

/// The address of a socket there. By the open folder: it may have any length, and is the one that
/// was checked.
inline sockaddr_un addressIn(int folder, const char* name) noexcept {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof address.sun_path, "/proc/self/fd/%d/%s", folder, name);
    return address;
}

}  // namespace zandor::client
