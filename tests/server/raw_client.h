// A client that sends exactly the bytes that a test wrote, so that a request can be wrong in ways that an
// HTTP library wouldn't let through.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace veld_report::server_test {

struct RawAnswer {
  int status = 0;  // 0: the connection ended without a status line
  std::string text;
  bool hasEnded = false;  // the server has closed, rather than the patience ended
};

// One connection to 127.0.0.1:`port`: sends `request`, then `drip` every 20 ms, and reads until the server
// closes or a minute has passed without a byte. A client has to ask for the closing in its request.
RawAnswer Exchange(std::uint16_t port, std::string_view request, std::string_view drip = {});

// A socket that is connected to 127.0.0.1:`port`, with a minute of patience; -1 if it can't be had. The
// caller closes it. `from`: the address that the server sees.
int Connect(std::uint16_t port, const char* from = "127.0.0.1");
// Reads until the server closes or the patience ends.
RawAnswer Receive(int handle);
// Sends until all is sent or the server has closed.
void SendAll(int handle, std::string_view text);

// A whole POST with a length, ready for Exchange.
std::string Post(std::string_view body, std::string_view contentType = "application/json");

}  // namespace veld_report::server_test
