// The folder in which hosts' sockets appear.
#pragma once

#include "zandor/client/runtime_folder.hpp"

namespace zandor::client {

/// Watched by notices of the kernel where it gives them, else read again and again. It is open only
/// while it is read: the kernel would not tell of the removal of an open one.
class HostFolder {
  public:
    explicit HostFolder(const RuntimeFolders& candidates) noexcept : candidates_(candidates) {}
    ~HostFolder();
    HostFolder(const HostFolder&) = delete;
    HostFolder& operator=(const HostFolder&) = delete;

    bool isToBeRead() const noexcept { return isToBeRead_; }
    bool isWatched() const noexcept { return watch_ >= 0; }
    /// To be polled; -1 where there is none.
    int watch() const noexcept { return watch_; }
    /// Takes what the watch has to say.
    void takeNotice() noexcept;
    /// Has it read again after a while: a folder, or a host's answer, may be there by then.
    void askAgain() noexcept { isToBeRead_ = true; }
    /// Whether the watch told of something since it was read.
    bool hasNews() const noexcept { return hasNews_; }

    /// Calls `visit(folder, name)` for each host's socket.
    template <class Visit>
    void read(Visit visit) noexcept {
        visitAll([](void* context, int folder,
                    const char* name) { (*static_cast<Visit*>(context))(folder, name); },
                 &visit);
    }

  private:
    using Visitor = void (*)(void* context, int folder, const char* name);
    void visitAll(Visitor visit, void* context) noexcept;
    void endWatch() noexcept;

    const RuntimeFolders& candidates_;
    int watch_ = -1;
    bool isToBeRead_ = true;
    bool hasNews_ = true;
};

}  // namespace zandor::client
