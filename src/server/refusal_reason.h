// Why a request or a connection of a client ended otherwise than with 200: small fixed sets, for counters.
#pragma once

#include <array>
#include <cstddef>

namespace veld_report::server {

// Of a request. Each is counted once, with one reason.
enum class RefusalReason {
  method,      // not a POST
  framing,     // the request isn't HTTP as it must be
  size,        // the body is over the limit
  memory,      // too many bodies are arriving at once
  rate,        // too many requests of one client
  stopping,    // the server is stopping
  content,     // the type or the coding of the body
  message,     // the body isn't a message
  signature,   // the message isn't signed as it must be
  sink,        // its records can't be stored
  testStatus,  // the server is set to answer another status
};
inline constexpr std::size_t refusalCount = 11;
// The names in figures and on the page.
inline constexpr std::array<const char*, refusalCount> refusalNames{
    "method",  "framing", "size",      "memory", "rate",       "stopping",
    "content", "message", "signature", "sink",   "test_status"};

// Of a connection that the server ends by itself, whether or not a request was arriving.
enum class CutReason {
  connections,  // more than the limit; it was one of the client that has most
  time,         // its request took too long, or stood still
  memory,       // too much memory in unfinished bodies
  tls,          // no agreement on TLS
};
inline constexpr std::size_t cutCount = 4;
inline constexpr std::array<const char*, cutCount> cutNames{"connections", "time", "memory", "tls"};

}  // namespace veld_report::server
