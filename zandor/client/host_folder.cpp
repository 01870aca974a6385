#include "host_folder.hpp"

#include <dirent.h>
#include <string.h>
#include <sys/inotify.h>

namespace zandor::client {

namespace {

int watchFolder(int folder) noexcept {
    const int watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (watch < 0)
        return -1;
    char path[32];
    snprintf(path, sizeof path, "/proc/self/fd/%d", folder);
    if (inotify_add_watch(watch, path, IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF) >= 0)
        return watch;
    close(watch);
    return -1;
}

/// Whether the folder that is watched is where it was, as far as the kernel tells.
bool isInPlace(const inotify_event& notice) noexcept {
    return (notice.mask & (IN_IGNORED | IN_MOVE_SELF | IN_Q_OVERFLOW)) == 0;
}

}  // namespace

HostFolder::~HostFolder() {
    endWatch();
}

void HostFolder::endWatch() noexcept {
    if (watch_ >= 0)
        close(watch_);
    watch_ = -1;
}

void HostFolder::takeNotice() noexcept {
    alignas(inotify_event) char notices[4096];
    bool isStill = true;
    for (ssize_t got = 0; (got = ::read(watch_, notices, sizeof notices)) > 0;)
        for (ssize_t at = 0; at < got;) {
            const auto& notice = *reinterpret_cast<const inotify_event*>(notices + at);
            isStill = isStill && isInPlace(notice);
            at += static_cast<ssize_t>(sizeof notice + notice.len);
        }
    if (!isStill)
        endWatch();
    isToBeRead_ = hasNews_ = true;
}

void HostFolder::visitAll(Visitor visit, void* context) noexcept {
    isToBeRead_ = hasNews_ = false;
    const int folder = openRuntimeFolder(candidates_);
    // Before the folder is read: no socket comes unseen between the two.
    if (folder >= 0 && watch_ < 0)
        watch_ = watchFolder(folder);
    DIR* const entries = folder < 0 ? nullptr : fdopendir(folder);
    if (!entries) {
        if (folder >= 0)
            close(folder);
        askAgain();
        return;
    }
    while (const dirent* entry = readdir(entries))
        if (strncmp(entry->d_name, hostPrefix, sizeof hostPrefix - 1) == 0)
            visit(context, folder, entry->d_name);
    closedir(entries);
}

}  // namespace zandor::client
