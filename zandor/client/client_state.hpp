// What the library keeps for each open client.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "session.hpp"
#include "zandor/client/client.h"
#include "zandor/client/runtime_folder.hpp"

namespace zandor::client {

inline constexpr std::size_t mostClients = 16;
inline constexpr std::size_t mostHosts = 4;
inline constexpr std::size_t refusalsKept = 8;

/// A place for a client. All-zero is free.
struct Client {
    /// Odd while it is open; each opening and closing counts one.
    std::atomic<std::uint32_t> generation;
    /// Which sessions want events now, a bit each. Relaxed: see setWanted.
    std::atomic<std::uint32_t> wanted;
    /// The process that events started here belong to.
    std::uint32_t process;
    wire::Clock clock;
    Session sessions[mostHosts];

    // Of its own thread; and before it begins.
    char name[wire::nameBytes];
    RuntimeFolders folders;
    /// Hosts that did not want this client, of late: they are not asked again.
    char refused[refusalsKept][hostNameBytes];
    std::size_t refusals;
    pthread_t courier;
    int wakeUp;  ///< written to where it is to end
    std::atomic<bool> isClosing;
};

/// There from the beginning, and never destroyed.
extern constinit Client clients[mostClients];

/// Which of them are wanted by any host, a bit each: 0 in most programs at most times. Relaxed: see
/// setWanted.
extern constinit std::atomic<std::uint32_t> wantedClients;

}  // namespace zandor::client
