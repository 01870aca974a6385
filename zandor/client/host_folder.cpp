#include "host_folder.hpp"

#include <dirent.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/stat.h>

namespace zandor::client {

namespace {

bool isGone(int folder) noexcept {
    struct stat status;
    return fstat(folder, &status) != 0 || status.st_nlink == 0;
}

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

}  // namespace

HostFolder::~HostFolder() {
    forget();
}

void HostFolder::forget() noexcept {
    if (watch_ >= 0)
        close(watch_);
    if (folder_ >= 0)
        close(folder_);
    watch_ = folder_ = -1;
}

void HostFolder::find() noexcept {
    if (folder_ >= 0 && isGone(folder_))
        forget();
    if (folder_ < 0)
        folder_ = openRuntimeFolder(candidates_);
    // Before the folder is read: no socket comes unseen between the two.
    if (folder_ >= 0 && watch_ < 0)
        watch_ = watchFolder(folder_);
}

void HostFolder::takeNotice() noexcept {
    alignas(inotify_event) char notices[4096];
    while (::read(watch_, notices, sizeof notices) > 0) {
    }
    isToBeRead_ = hasNews_ = true;
}

void HostFolder::visitAll(Visitor visit, void* context) noexcept {
    isToBeRead_ = hasNews_ = false;
    find();
    if (folder_ < 0)
        return;
    const int copy = openat(folder_, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* const entries = copy < 0 ? nullptr : fdopendir(copy);
    if (!entries) {
        if (copy >= 0)
            close(copy);
        askAgain();
        return;
    }
    while (const dirent* entry = readdir(entries))
        if (strncmp(entry->d_name, hostPrefix, sizeof hostPrefix - 1) == 0)
            visit(context, folder_, entry->d_name);
    closedir(entries);
}

}  // namespace zandor::client
