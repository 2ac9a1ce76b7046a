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
};

// One connection to 127.0.0.1:`port`: sends `request` and reads until the server closes or ten seconds are
// over. A request has to ask for the closing itself.
RawAnswer Exchange(std::uint16_t port, std::string_view request);

// A whole POST with a length, ready for Exchange.
std::string Post(std::string_view body, std::string_view contentType = "application/json");

}  // namespace veld_report::server_test
