// Asks the hosts of this user which clients they have.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "zandor/client/wire.hpp"

namespace vantrace {

struct HostReport {
    std::uint64_t processId = 0;
    std::vector<zandor::client::wire::ClientReport> clients;
};

/// Of hosts that answer within a second. Waits.
std::vector<HostReport> askHosts();

}  // namespace vantrace
