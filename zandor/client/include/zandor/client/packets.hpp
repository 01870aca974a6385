// Packets with at most one descriptor, over a socket that never makes anybody wait. For both ends.
#pragma once

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstddef>

namespace zandor::client {

namespace detail {

/// Room for one descriptor beside a packet.
union DescriptorRoom {
    cmsghdr head;
    char bytes[CMSG_SPACE(sizeof(int))];
};

inline int takeDescriptor(msghdr& message) noexcept {
    int descriptor = -1;
    const cmsghdr* head = CMSG_FIRSTHDR(&message);
    if (head && head->cmsg_level == SOL_SOCKET && head->cmsg_type == SCM_RIGHTS)
        memcpy(&descriptor, CMSG_DATA(head), sizeof descriptor);
    return descriptor;
}

}  // namespace detail

/// Sends a packet, with a descriptor unless it is negative. False where that is not possible now.
inline bool sendPacket(int socket, const void* packet, std::size_t bytes, int descriptor) noexcept {
    iovec part{const_cast<void*>(packet), bytes};
    detail::DescriptorRoom room{};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (descriptor >= 0) {
        message.msg_control = room.bytes;
        message.msg_controllen = sizeof room.bytes;
        cmsghdr* const head = CMSG_FIRSTHDR(&message);
        head->cmsg_level = SOL_SOCKET;
        head->cmsg_type = SCM_RIGHTS;
        head->cmsg_len = CMSG_LEN(sizeof descriptor);
        memcpy(CMSG_DATA(head), &descriptor, sizeof descriptor);
    }
    return sendmsg(socket, &message, MSG_DONTWAIT | MSG_NOSIGNAL) == static_cast<ssize_t>(bytes);
}

enum class Receipt { packet, nothing, end };

/// Receives one of exactly that size, or reports that there is none, or that the connection is over
/// or broken. `descriptor` becomes what came with it, or -1; it is the caller's.
inline Receipt receivePacket(int socket, void* packet, std::size_t bytes,
                             int& descriptor) noexcept {
    descriptor = -1;
    iovec part{packet, bytes};
    detail::DescriptorRoom room{};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = room.bytes;
    // Not all of the room, which for its alignment holds two: the second would stay open for ever.
    message.msg_controllen = CMSG_LEN(sizeof descriptor);
    const ssize_t got = recvmsg(socket, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (got < 0)
        return errno == EAGAIN || errno == EINTR ? Receipt::nothing : Receipt::end;
    descriptor = detail::takeDescriptor(message);
    if (got == static_cast<ssize_t>(bytes) && !(message.msg_flags & MSG_TRUNC))
        return Receipt::packet;
    if (descriptor >= 0)
        close(descriptor);
    descriptor = -1;
    return Receipt::end;
}

/// Whether the process at the other end is of this user.
inline bool isOwnUser(int socket) noexcept {
    ucred who{};
    socklen_t bytes = sizeof who;
    return getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &who, &bytes) == 0 && who.uid == geteuid();
}

}  // namespace zandor::client
