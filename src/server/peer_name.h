// The other end of a connection, for people to read.
#pragma once

#include <sys/socket.h>

#include <string>

namespace veld_report::server {

// "127.0.0.1:4711" or "[::1]:4711"; "unknown" for null and for another family.
std::string PeerName(const sockaddr* peer);

// What counts as one client: "127.0.0.1", or "[2001:db8::]/64", since whoever has one IPv6 address has the
// others of its network.
std::string ClientAddress(const sockaddr* peer);

}  // namespace veld_report::server
