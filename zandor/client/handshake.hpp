// How a client joins a host, hears from it, and leaves it. All on the client's own thread.
#pragma once

#include <cstdint>

#include "client_state.hpp"

namespace zandor::client {

/// Connects and says hello, where a session is free and the host was not refused. False where it is
/// to be tried again.
bool join(Client& client, int folder, const char* host) noexcept;
/// Takes what the host of a session sent. False where it is to be joined again.
bool hear(Client& client, std::size_t host) noexcept;
void leave(Client& client, std::size_t host) noexcept;
/// Whether nothing is left of a session that is over; takes it apart where nobody uses it.
bool takeApart(Session& session) noexcept;

/// When a session's lease ends; in the past where there is none.
std::int64_t leaseOf(const Session& session) noexcept;
void setWanted(Client& client, std::size_t host, bool isWanted) noexcept;

}  // namespace zandor::client
