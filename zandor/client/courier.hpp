// A client's own thread: finds hosts, joins them, and watches their leases.
#pragma once

#include "client_state.hpp"

namespace zandor::client {

/// Begins the thread; false where the system gives none.
bool startCourier(Client& client) noexcept;
/// Has it end its sessions and itself, and waits for that.
void stopCourier(Client& client) noexcept;
/// In a child after fork: forgets the parent's sessions and closes what was inherited of them.
void abandonSessions(Client& client) noexcept;

}  // namespace zandor::client
