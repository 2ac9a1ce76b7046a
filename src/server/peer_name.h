// The other end of a connection, for people to read.
#pragma once

#include <sys/socket.h>

#include <string>

namespace veld_report::server {

// "127.0.0.1:4711" or "[::1]:4711"; "unknown" for null and for another family.
std::string PeerName(const sockaddr* peer);

}  // namespace veld_report::server
