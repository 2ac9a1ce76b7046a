// A listening TCP socket. Opened here rather than by the HTTP library, so that an error can say what is wrong
// and a free port is known at once.
#pragma once

#include <cstdint>
#include <string>

namespace veld_report::server {

struct ListenSocket {
  int handle;          // non-blocking; the caller closes it
  std::uint16_t port;  // the port in use
};

// `address`: numeric or a name (its first address is used). `port` 0 takes a free one. Throws
// std::runtime_error with a sentence.
ListenSocket OpenListenSocket(const std::string& address, std::uint16_t port);

}  // namespace veld_report::server
