// A listening TCP socket, made by hand so that a failure can say what is wrong and a free port is known at
// once.
#pragma once

#include <cstdint>
#include <string>

namespace veld_report::server {

struct ListenSocket {
  int handle;          // non-blocking; the caller closes it
  std::uint16_t port;  // the one that was taken
};

// `address`: numeric or a name (its first address counts); `port` 0 takes a free one. Throws
// std::runtime_error with a sentence.
ListenSocket OpenListenSocket(const std::string& address, std::uint16_t port);

}  // namespace veld_report::server
